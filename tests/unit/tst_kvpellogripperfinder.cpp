#include "kvpellogripperfinder.h"

#include "quitsignals.h"
#include "scriptedmaster.h"

#include <QElapsedTimer>
#include <QTest>
#include <QTimer>

#include <csignal>

namespace {

using Gripper = KvPelloGripperFinder::Gripper;
using Ids = QList<int>;

QStringList s_messages;

void noteMessage(QtMsgType /*type*/, const QMessageLogContext & /*context*/, const QString &message)
{
    s_messages.append(message);
}

void addGripper(ScriptedMaster &master, int id, quint16 productCode = 0x5441)
{
    const auto slaveId = static_cast<quint8>(id);
    master.setRegisters(slaveId, 500, {productCode, 0x3301, 0x060E});
    master.setRegisters(slaveId, 510, {0x4142, 0x4300, slaveId, 0});
    master.setRegisters(slaveId, 514, {2024});
    for (const quint16 counter : {quint16{600}, quint16{602}, quint16{604}})
        master.setRegisters(slaveId, counter, {0, 0});
    master.setRegisters(slaveId, 2000, {0, 0, 0});
}

QVector<Gripper> scan(ScriptedMaster &master)
{
    return KvPelloGripperFinder::instance()->scanPort(master);
}

Ids idsOf(const QVector<Gripper> &grippers)
{
    Ids ids;
    for (const Gripper &gripper : grippers)
        ids.append(gripper->getSlaveId());
    return ids;
}

} // namespace

class tst_KvPelloGripperFinder : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void scanProbesFourIdsInThisOrder();
    void foundGrippersComeInTheOrderProbed();
    void gripperAtAnotherIdIsNeverFound_data();
    void gripperAtAnotherIdIsNeverFound();
    void otherDevicesAreLeftOutWithoutALogLine();
    void closedLinkIsOpenedAndLeftOpen();
    void openLinkIsNotOpenedAgain();
    void linkThatCannotBeOpenedHasNoGrippers();
    void quitSignalEndsTheScan();

private:
    QScopedPointer<ScriptedMaster> m_master;
};

void tst_KvPelloGripperFinder::init()
{
    m_master.reset(new ScriptedMaster);
}

void tst_KvPelloGripperFinder::scanProbesFourIdsInThisOrder()
{
    QCOMPARE(scan(*m_master).size(), 0);
    QCOMPARE(m_master->takeRequests(),
             QStringList({QStringLiteral("baud 115200"), QStringLiteral("read 9 500 3"),
                          QStringLiteral("baud 115200"), QStringLiteral("read 2 500 3"),
                          QStringLiteral("baud 115200"), QStringLiteral("read 3 500 3"),
                          QStringLiteral("baud 115200"), QStringLiteral("read 4 500 3")}));
}

void tst_KvPelloGripperFinder::foundGrippersComeInTheOrderProbed()
{
    for (int id = 1; id <= 9; ++id)
        addGripper(*m_master, id);
    const QVector<Gripper> found = scan(*m_master);
    QCOMPARE(idsOf(found), Ids({9, 2, 3, 4}));
    QCOMPARE(found[1]->getSerialNumber(), QStringLiteral("ABC-002"));
    for (const Gripper &gripper : found)
        QCOMPARE(gripper->error(), KvDeviceBase::NoError);
}

void tst_KvPelloGripperFinder::gripperAtAnotherIdIsNeverFound_data()
{
    QTest::addColumn<int>("id");
    for (const int id : {1, 5, 6, 7, 8})
        QTest::addRow("%d", id) << id;
}

void tst_KvPelloGripperFinder::gripperAtAnotherIdIsNeverFound()
{
    QFETCH(int, id);
    addGripper(*m_master, id);
    QCOMPARE(idsOf(scan(*m_master)), Ids());
    QCOMPARE(m_master->takeRequests().filter(QStringLiteral("read %1 ").arg(id)), QStringList());
}

void tst_KvPelloGripperFinder::otherDevicesAreLeftOutWithoutALogLine()
{
    addGripper(*m_master, 9, 0x5858);
    addGripper(*m_master, 3);
    s_messages.clear();
    const QtMessageHandler kept = qInstallMessageHandler(noteMessage);
    const QVector<Gripper> found = scan(*m_master);
    qInstallMessageHandler(kept);
    QCOMPARE(idsOf(found), Ids{3});
    QCOMPARE(s_messages, QStringList());
}

void tst_KvPelloGripperFinder::closedLinkIsOpenedAndLeftOpen()
{
    addGripper(*m_master, 9);
    m_master->setOpen(false);
    QCOMPARE(idsOf(scan(*m_master)), Ids{9});
    QVERIFY(m_master->isConnected());
    const QStringList requests = m_master->takeRequests();
    QCOMPARE(requests.first(), QStringLiteral("connect"));
    QCOMPARE(requests.count(QStringLiteral("connect")), 1);
    QCOMPARE(requests.count(QStringLiteral("disconnect")), 0);
}

void tst_KvPelloGripperFinder::openLinkIsNotOpenedAgain()
{
    scan(*m_master);
    QVERIFY(m_master->isConnected());
    const QStringList requests = m_master->takeRequests();
    QCOMPARE(requests.count(QStringLiteral("connect")), 0);
    QCOMPARE(requests.count(QStringLiteral("disconnect")), 0);
}

void tst_KvPelloGripperFinder::linkThatCannotBeOpenedHasNoGrippers()
{
    addGripper(*m_master, 9);
    m_master->setOpen(false);
    m_master->setOpenable(false);
    QCOMPARE(idsOf(scan(*m_master)), Ids());
    QCOMPARE(m_master->takeRequests(), QStringList(QStringLiteral("connect")));
}

// Must be the last test: quitRequested() stays true in this process.
void tst_KvPelloGripperFinder::quitSignalEndsTheScan()
{
    quitOnSignals({SIGUSR1});
    QTimer::singleShot(50, this, [] { std::raise(SIGUSR1); });
    QCOMPARE(idsOf(scan(*m_master)), Ids());
    QCOMPARE(m_master->takeRequests().filter(QStringLiteral("read 2 ")), QStringList());
}

QTEST_GUILESS_MAIN(tst_KvPelloGripperFinder)
#include "tst_kvpellogripperfinder.moc"
