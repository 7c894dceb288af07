#include "kvpellogripperfinder.h"

#include "logcapture.h"
#include "quitsignals.h"
#include "scriptedmaster.h"

#include <QElapsedTimer>
#include <QTest>
#include <QTimer>

#include <csignal>

namespace {

using Gripper = KvPelloGripperFinder::Gripper;
using Ids = QList<int>;

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
    void otherDevicesAreLeftOutWithoutALogLine();
    void closedLinkIsOpenedAndLeftOpen();
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
    for (quint8 slaveId = 1; slaveId <= 9; ++slaveId)
        m_master->addGripper(slaveId);
    const QVector<Gripper> found = scan(*m_master);
    QCOMPARE(idsOf(found), Ids({9, 2, 3, 4}));
    for (const Gripper &gripper : found)
        QCOMPARE(gripper->error(), KvDeviceBase::NoError);
}

void tst_KvPelloGripperFinder::otherDevicesAreLeftOutWithoutALogLine()
{
    m_master->addGripper(9, 0x5858);
    m_master->addGripper(3);
    const LogCapture log;
    QCOMPARE(idsOf(scan(*m_master)), Ids{3});
    QCOMPARE(log.infos() + log.warnings(), QStringList());
}

void tst_KvPelloGripperFinder::closedLinkIsOpenedAndLeftOpen()
{
    m_master->addGripper(9);
    m_master->setOpen(false);
    QCOMPARE(idsOf(scan(*m_master)), Ids{9});
    QVERIFY(m_master->isConnected());
    const QStringList requests = m_master->takeRequests();
    QCOMPARE(requests.first(), QStringLiteral("connect"));
    QCOMPARE(requests.count(QStringLiteral("connect")), 1);
    QCOMPARE(requests.count(QStringLiteral("disconnect")), 0);
}

void tst_KvPelloGripperFinder::linkThatCannotBeOpenedHasNoGrippers()
{
    m_master->addGripper(9);
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
