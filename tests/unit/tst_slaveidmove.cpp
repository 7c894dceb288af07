#include "gripperlist.h"

#include "logcapture.h"
#include "pausewatch.h"
#include "scriptedmaster.h"

#include <QElapsedTimer>
#include <QTest>

#include <memory>
#include <optional>

namespace {

using Words = ScriptedMaster::Words;
using Error = KvDeviceBase::KvDeviceError;

constexpr quint16 settingsAddress = 430;
constexpr quint16 resetAddress = 400;

const Words settingsOf9{0x0001, 0x0203, 0xFFFF, 0x8000, 0xAB09};
const Words settingsOf4{0x0001, 0x0203, 0xFFFF, 0x8000, 0xAB04};

const QString readSettings = QStringLiteral("read 9 430 5");
const QString writeId4 =
    QStringLiteral("write 9 430: 0x0001 0x0203 0xffff 0x8000 0xab04 0x0000 0x0036");
const QString restart = QStringLiteral("write 9 400: 0x5600");

void setUpSlave(ScriptedMaster &master, quint8 slaveId)
{
    master.setRegisters(slaveId, 500, {0x5441, 0x3301, 0x060E});
    master.setRegisters(slaveId, 510, {0x4142, 0x4300, 42, 0});
    master.setRegisters(slaveId, 514, {2024});
    for (const quint16 counter : {quint16{600}, quint16{602}, quint16{604}})
        master.setRegisters(slaveId, counter, {0, 0});
    master.setRegisters(slaveId, 2000, {0, 0, 0});
}

} // namespace

/// Slave id moves of a gripper from 9 to 4, on the gripper and in the list.
class tst_GripperList : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void idThatTheDeviceHasIsNotWritten_data();
    void idThatTheDeviceHasIsNotWritten();
    void shortFirstReadEndsTheMove_data();
    void shortFirstReadEndsTheMove();
    void writeErrorEndsTheMove_data();
    void writeErrorEndsTheMove();
    void timedOutWriteLeadsToTheCheckRead();
    void checkReadWithAnotherIdEndsTheMove();
    void failingRestartEndsTheMove();

    void moveOfAMissingGripperFailsSilently();
    void moveThatFailsDoesNotChangeTheMap();
    void moveToTheSameIdRemovesTheGripperFromTheList();
    void moveRestoresTheBusyFlag_data();
    void moveRestoresTheBusyFlag();
    void moveSucceedsAndReplacesTheGripperAtTheNewId();

private:
    std::unique_ptr<ScriptedMaster> m_master;
    ModbusConstraintsFactory m_factory;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<GripperList> m_list;
    GripperList::Gripper m_gripper;
    GripperList::Gripper m_other;
};

void tst_GripperList::init()
{
    m_log = std::make_unique<LogCapture>();
    m_master = std::make_unique<ScriptedMaster>();
    setUpSlave(*m_master, 9);
    setUpSlave(*m_master, 4);
    m_gripper = GripperList::Gripper::create(*m_master, quint16{9});
    QCOMPARE(m_gripper->error(), Error::NoError);
    m_list = std::make_unique<GripperList>(m_factory, nullptr);
    m_list->m_stateLoopTimer->stop();
    m_list->m_grippers.insert(9, m_gripper);
    m_list->m_loopStep = GripperList::LoopStep::WriteOutput;
    m_list->m_linkStatus = GripperList::LinkStatus::Timeout;
    m_master->takeRequests();
    m_log->clear();
}

void tst_GripperList::cleanup()
{
    QCOMPARE(m_log->warnings(), QStringList());
    m_list.reset();
    m_gripper.reset();
    m_other.reset();
    m_log.reset();
}

void tst_GripperList::idThatTheDeviceHasIsNotWritten_data()
{
    QTest::addColumn<int>("idRegister");
    QTest::newRow("alone in its register") << 0x0009;
    QTest::newRow("beside another setting") << 0xFF09;
}

void tst_GripperList::idThatTheDeviceHasIsNotWritten()
{
    QFETCH(int, idRegister);
    m_master->setRegisters(9, settingsAddress, {1, 2, 3, 4, static_cast<quint16>(idRegister)});
    const PauseWatch watch;
    QVERIFY(m_gripper->updateSlaveId(9));
    QCOMPARE(watch.pausesMs(), QVector<int>());
    QCOMPARE(m_master->takeRequests(), QStringList{readSettings});
    QCOMPARE(m_gripper->getSlaveId(), quint8{9});
}

void tst_GripperList::shortFirstReadEndsTheMove_data()
{
    QTest::addColumn<int>("count");
    QTest::newRow("nothing") << 0;
    QTest::newRow("four registers") << 4;
}

void tst_GripperList::shortFirstReadEndsTheMove()
{
    QFETCH(int, count);
    m_master->setRegisters(9, settingsAddress, settingsOf9.mid(0, count));
    QVERIFY(!m_gripper->updateSlaveId(4));
    QCOMPARE(m_master->takeRequests(), QStringList{readSettings});
    QCOMPARE(m_gripper->getSlaveId(), quint8{9});
    QCOMPARE(m_gripper->error(), Error::CommunicationError);
}

void tst_GripperList::writeErrorEndsTheMove_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("checksum") << int(KvModbusAbstract::BadCrcError);
    QTest::newRow("not connected") << int(KvModbusAbstract::NotConnectedError);
}

void tst_GripperList::writeErrorEndsTheMove()
{
    QFETCH(int, error);
    m_master->setRegisters(9, settingsAddress, settingsOf9);
    m_master->refuseWrites(settingsAddress, KvModbusAbstract::KvModbusError(error));
    const PauseWatch watch;
    QVERIFY(!m_gripper->updateSlaveId(4));
    QCOMPARE(watch.pausesMs(), QVector<int>());
    QCOMPARE(m_master->takeRequests(), (QStringList{readSettings, writeId4}));
    QCOMPARE(m_gripper->getSlaveId(), quint8{9});
}

// A time-out of the write does not end the move. The check read then gives too few registers.
void tst_GripperList::timedOutWriteLeadsToTheCheckRead()
{
    m_master->setNextAnswers(9, settingsAddress, {settingsOf9, settingsOf4.mid(0, 4)});
    m_master->refuseWrites(settingsAddress, KvModbusAbstract::TimeoutError);
    const PauseWatch watch;
    QVERIFY(!m_gripper->updateSlaveId(4));
    QCOMPARE(watch.pausesMs(), QVector<int>{2500});
    QCOMPARE(m_master->takeRequests(), (QStringList{readSettings, writeId4, readSettings}));
    QCOMPARE(m_gripper->getSlaveId(), quint8{9});
}

void tst_GripperList::checkReadWithAnotherIdEndsTheMove()
{
    m_master->setNextAnswers(9, settingsAddress, {settingsOf9, {0, 0, 0, 4, 0x0405}});
    QVERIFY(!m_gripper->updateSlaveId(4));
    QCOMPARE(m_master->takeRequests(), (QStringList{readSettings, writeId4, readSettings}));
    QCOMPARE(m_gripper->getSlaveId(), quint8{9});
}

void tst_GripperList::failingRestartEndsTheMove()
{
    m_master->setNextAnswers(9, settingsAddress, {settingsOf9, settingsOf4});
    m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    const PauseWatch watch;
    QVERIFY(!m_gripper->updateSlaveId(4));
    QCOMPARE(watch.pausesMs(), (QVector<int>{2500, 400}));
    QCOMPARE(m_master->takeRequests(),
             (QStringList{readSettings, writeId4, readSettings, restart}));
    QCOMPARE(m_gripper->getSlaveId(), quint8{9});
}

void tst_GripperList::moveOfAMissingGripperFailsSilently()
{
    QVERIFY(!m_list->updateGripperSlaveId(7, 4));
    QCOMPARE(m_log->infos(), QStringList());
    QCOMPARE(m_master->takeRequests(), QStringList());
    QVERIFY(!m_list->m_busy);
    QCOMPARE(m_list->getDiscoveredSlaveIds(), QVector<quint8>{9});
}

void tst_GripperList::moveThatFailsDoesNotChangeTheMap()
{
    m_list->m_currentSlaveId = 9;
    QVERIFY(!m_list->updateGripperSlaveId(9, 4));
    QCOMPARE(m_log->infos(), QStringList{QStringLiteral("fail to update slave id from  9  to  4")});
    QCOMPARE(m_list->getDiscoveredSlaveIds(), QVector<quint8>{9});
    QCOMPARE(m_list->getGripperFromSlaveId(9), m_gripper);
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(9));
    QVERIFY(!m_list->m_busy);
}

void tst_GripperList::moveToTheSameIdRemovesTheGripperFromTheList()
{
    m_master->setRegisters(9, settingsAddress, settingsOf9);
    m_list->m_currentSlaveId = 9;
    QVERIFY(m_list->updateGripperSlaveId(9, 9));
    QCOMPARE(m_log->infos(), QStringList{QStringLiteral("update slave id from  9  to  9")});
    QCOMPARE(m_master->takeRequests(), QStringList{readSettings});
    QCOMPARE(m_list->getDiscoveredSlaveIds(), QVector<quint8>());
    QVERIFY(!m_list->m_currentSlaveId);
    QVERIFY(!m_list->m_busy);
}

void tst_GripperList::moveRestoresTheBusyFlag_data()
{
    QTest::addColumn<bool>("busy");
    QTest::addColumn<int>("id");
    for (const bool busy : {false, true}) {
        QTest::addRow("failing move, %s", busy ? "busy" : "idle") << busy << 9;
        QTest::addRow("no gripper moves, %s", busy ? "busy" : "idle") << busy << 7;
    }
}

void tst_GripperList::moveRestoresTheBusyFlag()
{
    QFETCH(bool, busy);
    QFETCH(int, id);
    m_list->m_busy = busy;
    bool busyMeanwhile = true;
    m_master->setOnRequest([&] { busyMeanwhile = busyMeanwhile && m_list->m_busy; });
    QVERIFY(!m_list->updateGripperSlaveId(static_cast<quint8>(id), 4));
    QVERIFY(busyMeanwhile);
    QCOMPARE(m_list->m_busy, busy);
}

// One whole move with all its waits.
void tst_GripperList::moveSucceedsAndReplacesTheGripperAtTheNewId()
{
    m_other = GripperList::Gripper::create(*m_master, quint16{4});
    m_list->m_grippers.insert(4, m_other);
    m_list->m_grippers.insert(2, m_other);
    m_list->m_currentSlaveId = 9;
    m_master->takeRequests();
    m_master->setNextAnswers(9, settingsAddress, {settingsOf9, settingsOf4});

    QStringList requests;
    QVector<qint64> timesMs;
    QElapsedTimer clock;
    m_master->setOnRequest([&] {
        requests += m_master->takeRequests();
        timesMs.append(clock.elapsed());
    });
    const int tickMs = 50;
    int ticks = 0;
    bool busyMeanwhile = true;
    QVector<quint8> idsMeanwhile;
    QTimer ticker;
    connect(&ticker, &QTimer::timeout, this, [&] {
        ++ticks;
        m_list->onTimerStateLoopTimeout();
        busyMeanwhile = busyMeanwhile && m_list->m_busy;
        idsMeanwhile = m_list->getDiscoveredSlaveIds();
    });
    ticker.start(tickMs);
    const PauseWatch watch;
    clock.start();
    QVERIFY(m_list->updateGripperSlaveId(9, 4));
    const qint64 elapsedMs = clock.elapsed();
    ticker.stop();
    QVector<int> pausesMs = watch.pausesMs();
    pausesMs.removeAll(tickMs);

    QCOMPARE(requests, (QStringList{readSettings, writeId4, readSettings, restart}));
    QVERIFY2(timesMs[2] - timesMs[1] >= 2500, qPrintable(QString::number(timesMs[2])));
    QVERIFY2(timesMs[3] - timesMs[2] >= 400, qPrintable(QString::number(timesMs[3])));
    QVERIFY2(elapsedMs - timesMs[3] >= 3000, qPrintable(QString::number(elapsedMs)));
    QCOMPARE(pausesMs, (QVector<int>{2500, 400, 3000}));
    QVERIFY(ticks > 20);
    QVERIFY(busyMeanwhile);
    QVERIFY(!m_list->m_busy);
    QCOMPARE(idsMeanwhile, (QVector<quint8>{2, 4, 9}));

    QCOMPARE(m_log->infos(), QStringList{QStringLiteral("update slave id from  9  to  4")});
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 4}));
    QCOMPARE(m_list->getGripperFromSlaveId(4), m_gripper);
    QCOMPARE(m_gripper->getSlaveId(), quint8{4});
    // The entry is gone, so the position is at the first gripper.
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(2));
    QCOMPARE(m_list->m_loopStep, GripperList::LoopStep::WriteOutput);
    QCOMPARE(m_list->m_linkStatus, GripperList::LinkStatus::Timeout);

    QVERIFY(m_gripper->updateInput());
    QCOMPARE(requests.value(4), QStringLiteral("read 4 2000 3"));
}

QTEST_GUILESS_MAIN(tst_GripperList)
#include "tst_slaveidmove.moc"
