#include "kvmodbuscustom.h"
#include "kvpellogripperfinder.h"

#include <QCoreApplication>
#include <QSerialPortInfo>
#include <QTextStream>

// Calls functions that the daemon itself never calls, for a test that sets up the system's ports:
//
//   system-scan STEP...
//
//   enumeration   the platform's own list of all ports, by bare name
//   ports         KvModbusCustom::getAvailablePorts()
//   grippers      KvPelloGripperFinder::scanAllSerialPorts(): each port, and its slave ids
//   gripper=ID    scanAllSerialPorts(ID): the same, only for the gripper with this slave id
//
// Each step prints its name, and then one line for each entry of its result.

namespace {

using Gripper = KvPelloGripperFinder::Gripper;

QStringList enumeration()
{
    QStringList lines;
    const auto ports = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &port : ports)
        lines.append(port.portName());
    return lines;
}

QStringList availablePorts()
{
    return KvModbusCustom::getAvailablePorts().toList();
}

QString describe(const Gripper &gripper)
{
    return QString::number(gripper->getSlaveId()) + QLatin1Char('=') + gripper->getSerialNumber();
}

QStringList allGrippers()
{
    QStringList lines;
    const auto found = KvPelloGripperFinder::instance()->scanAllSerialPorts();
    for (auto port = found.begin(); port != found.end(); ++port) {
        QString line = port.key();
        for (const Gripper &gripper : port.value())
            line += QLatin1Char(' ') + describe(gripper);
        lines.append(line);
    }
    return lines;
}

QStringList oneGripper(quint16 slaveId)
{
    QStringList lines;
    const auto found = KvPelloGripperFinder::instance()->scanAllSerialPorts(slaveId);
    for (auto port = found.begin(); port != found.end(); ++port)
        lines.append(port.key() + QLatin1Char(' ') + describe(port.value()));
    return lines;
}

QStringList resultOf(const QString &step)
{
    if (step == QLatin1String("enumeration"))
        return enumeration();
    if (step == QLatin1String("ports"))
        return availablePorts();
    if (step == QLatin1String("grippers"))
        return allGrippers();
    if (step.startsWith(QLatin1String("gripper=")))
        return oneGripper(step.section(QLatin1Char('='), 1).toUShort());
    qFatal("unknown step \"%s\"", qPrintable(step));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication application(argc, argv);
    QTextStream output(stdout);
    const QStringList steps = QCoreApplication::arguments().mid(1);
    for (const QString &step : steps) {
        output << step << ":\n";
        const QStringList lines = resultOf(step);
        for (const QString &line : lines)
            output << line << '\n';
    }
    return 0;
}
