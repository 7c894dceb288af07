#include "kvpellogripperfinder.h"

#include "kvmodbuscustom.h"
#include "quitsignals.h"

namespace {

KvPelloGripperFinder::Gripper probe(KvModbusAbstract &link, quint16 slaveId)
{
    auto gripper = KvPelloGripperFinder::Gripper::create(link, slaveId);
    return gripper->error() == KvDeviceBase::NoError ? gripper : KvPelloGripperFinder::Gripper();
}

} // namespace

KvPelloGripperFinder *KvPelloGripperFinder::_instance = nullptr;
const QVector<quint16> KvPelloGripperFinder::__slaveIdsToScan{9, 2, 3, 4};

KvPelloGripperFinder *KvPelloGripperFinder::instance()
{
    if (_instance == nullptr)
        _instance = new KvPelloGripperFinder;
    return _instance;
}

QVector<KvPelloGripperFinder::Gripper> KvPelloGripperFinder::scanPort(KvModbusAbstract &link)
{
    QVector<Gripper> found;
    if (!link.isConnected() && !link.connectToDevice())
        return found;
    for (const quint16 slaveId : __slaveIdsToScan) {
        if (quitRequested())
            break;
        const Gripper gripper = probe(link, slaveId);
        if (gripper)
            found.append(gripper);
    }
    return found;
}

QMap<QString, QVector<KvPelloGripperFinder::Gripper>> KvPelloGripperFinder::scanAllSerialPorts()
{
    QMap<QString, QVector<Gripper>> grippersByPort;
    onEachAvailablePort([&](const QString &portName, KvModbusCustom &link) {
        const QVector<Gripper> found = scanPort(link);
        if (!found.isEmpty())
            grippersByPort.insert(portName, found);
    });
    return grippersByPort;
}

QMap<QString, KvPelloGripperFinder::Gripper>
KvPelloGripperFinder::scanAllSerialPorts(quint16 slaveId)
{
    QMap<QString, Gripper> gripperByPort;
    onEachAvailablePort([&](const QString &portName, KvModbusCustom &link) {
        const Gripper gripper = probe(link, slaveId);
        if (gripper)
            gripperByPort.insert(portName, gripper);
    });
    return gripperByPort;
}

/// The factory gets full paths, so every port has the default timing.
void KvPelloGripperFinder::onEachAvailablePort(
    const std::function<void(const QString &portName, KvModbusCustom &link)> &visit)
{
    const QVector<QString> portNames = KvModbusCustom::getAvailablePorts();
    for (const QString &portName : portNames) {
        KvModbusCustom link(nullptr);
        link.setConstraints(m_constraintsFactory.getModbusConstraints(portName));
        link.setBaudRate(KvPelloGripper::firmwareBaudRate);
        link.setPortName(portName);
        link.connectToDevice();
        visit(portName, link);
        link.disconnectFromDevice();
    }
}
