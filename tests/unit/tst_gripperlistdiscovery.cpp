#include "gripperlist.h"

#include "logcapture.h"
#include "scriptedmaster.h"
#include "simulatedline.h"

#include <QElapsedTimer>
#include <QTest>

#include <functional>
#include <memory>
#include <optional>

/// Discovery adds grippers to the list and removes them. Only the tests call ticks.
class tst_GripperList : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void scanAddsTheGrippersThatAnswer();
    void scanLogsThePortAndTheSlaveIds();
    void scanOfAPortThatCannotBeOpenedChangesNothing();
    void scanLeavesTheLinkOpenWithAnyResult();
    void scanRemovesTheManagedIdsThatDoNotAnswer();
    void scanGivesTheLinkTheConstraintsOfThePort();
    void linkIsOpenedAtTheGrippersBaudRate();
    void lastOfSeveralGrippersWithTheSameIdCounts();

    void pollingStartsWithTheSecondGripper();
    void rescanReplacesEveryGripperWithANewObject();
    void fieldThatWasNotSentBeforeTheRescanReachesTheNewObject();
    void fieldSetDuringTheScanReachesTheNewObject_data();
    void fieldSetDuringTheScanReachesTheNewObject();
    void fieldSetToItsOldValueDuringTheScanReachesTheNewObject();
    void fieldSetDuringNestedScansReachesTheNewObject();
    void gripperThatIsFoundAgainSoonKeepsUnsentFields_data();
    void gripperThatIsFoundAgainSoonKeepsUnsentFields();
    void latestGripperIsTheOneInTheList();
    void rescanAddsNewGrippersAndRemovesMissingOnes();
    void scanDisturbedByAnotherRemovesNoGripper_data();
    void scanDisturbedByAnotherRemovesNoGripper();
    void gripperThatOnlyTheInnerScanFindsStays();

private:
    using LoopStep = GripperList::LoopStep;
    using LinkStatus = GripperList::LinkStatus;

    // Runs `action` once, inside the wait for the answer to the next request of this kind.
    void onceSeen(SimulatedLine &line, const QString &request, const std::function<void()> &action);

    ModbusConstraintsFactory m_factory;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<GripperList> m_list;
};

void tst_GripperList::onceSeen(SimulatedLine &line, const QString &request,
                               const std::function<void()> &action)
{
    line.clearTraffic();
    auto *once = new QObject(&line.bus());
    connect(&line.bus(), &sim::BusSimulator::frameSeen, once, [=, &line] {
        if (!line.requests().endsWith(request))
            return;
        QTimer::singleShot(0, this, action);
        once->deleteLater();
        disconnect(&line.bus(), nullptr, once, nullptr);
    });
}

void tst_GripperList::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_GripperList::init()
{
    m_list = std::make_unique<GripperList>(m_factory, nullptr);
    m_list->m_stateLoopTimer->stop();
    m_log->clear();
}

void tst_GripperList::cleanup()
{
    m_list.reset();
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_GripperList::cleanupTestCase()
{
    m_log.reset();
}

void tst_GripperList::scanAddsTheGrippersThatAnswer()
{
    SimulatedLine line{{9, "TA3-1.6.14"}, {2, "TE1-2.0.2"}};

    m_list->scan(line.path());

    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
    for (const quint8 slaveId : {quint8{2}, quint8{9}}) {
        const auto gripper = m_list->getGripperFromSlaveId(slaveId);
        QVERIFY(gripper);
        QCOMPARE(gripper->getSlaveId(), slaveId);
        QCOMPARE(gripper->error(), KvDeviceBase::NoError);
    }
    // A scan without a tick does not change the link status.
    QCOMPARE(m_list->getPrintableState(), QByteArray("SCANNING"));
}

void tst_GripperList::scanLogsThePortAndTheSlaveIds()
{
    SimulatedLine line{{9, "TA3-1.6.14"}, {2, "TE1-2.0.2"}};

    m_list->scan(line.path());

    const QString port = QStringLiteral("Connected serial port : \"%1\"").arg(line.path());
    QCOMPARE(m_log->infos(), (QStringList{port, QStringLiteral("(2, 9)")}));
}

void tst_GripperList::scanOfAPortThatCannotBeOpenedChangesNothing()
{
    KvModbusCustom elsewhere(nullptr);
    m_list->m_grippers.insert(5, GripperList::Gripper::create(elsewhere, quint16{5}));
    m_log->clear();

    m_list->scan(QStringLiteral("/dev/pts/no-such-port"));

    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{5}));
    QVERIFY(!m_list->m_modbus.isConnected());
    QCOMPARE(m_log->infos(), QStringList());
    m_list->m_grippers.clear();
}

void tst_GripperList::scanLeavesTheLinkOpenWithAnyResult()
{
    SimulatedLine line{};
    m_list->scan(line.path());
    QVERIFY(m_list->m_modbus.isConnected());
    QVERIFY(m_list->m_grippers.isEmpty());
    QCOMPARE(m_log->infos().last(), QStringLiteral("()"));
}

void tst_GripperList::scanRemovesTheManagedIdsThatDoNotAnswer()
{
    SimulatedLine line{{2, "TA3-1.6.14"}};
    KvModbusCustom elsewhere(nullptr);
    const auto stale = GripperList::Gripper::create(elsewhere, quint16{7});
    for (quint8 slaveId = 0; slaveId <= 10; ++slaveId)
        m_list->m_grippers.insert(slaveId, stale);

    m_list->scan(line.path());

    // A scan changes only the ids 1 to 9.
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{0, 2, 10}));
    QVERIFY(m_list->getGripperFromSlaveId(2) != stale);
    m_list->m_grippers.clear();
}

void tst_GripperList::scanGivesTheLinkTheConstraintsOfThePort()
{
    SimulatedLine line{};
    m_list->m_modbus.setConstraints(ModbusConstraints(5000, 10, 2));
    QElapsedTimer clock;
    clock.start();

    m_list->scan(line.path());

    QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
}

void tst_GripperList::linkIsOpenedAtTheGrippersBaudRate()
{
    SimulatedLine line{};
    m_list->m_modbus.setBaudRate(19200);

    m_list->openLink(line.path());

    QVERIFY(m_list->m_modbus.isConnected());
    QCOMPARE(m_list->m_modbus.getBaudrate(), 115200);
    QCOMPARE(QStringLiteral("/dev/") + m_list->getModbusName(), line.path());
}

void tst_GripperList::lastOfSeveralGrippersWithTheSameIdCounts()
{
    ScriptedMaster master;
    const auto first = GripperList::Gripper::create(master, quint16{3});
    const auto second = GripperList::Gripper::create(master, quint16{3});
    const auto other = GripperList::Gripper::create(master, quint16{4});

    m_list->updateEntry(3, {first, second, other});

    QCOMPARE(m_list->getGripperFromSlaveId(3), second);
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{3}));
    m_list->m_grippers.clear();
}

void tst_GripperList::pollingStartsWithTheSecondGripper()
{
    SimulatedLine line{{9, "TA3-1.6.14"}, {2, "TE1-2.0.2"}};
    // On a busy machine a scan may miss a gripper. The test then repeats the scan.
    const auto discoverBoth = [&] {
        m_list->m_scanBackOffTimer->stop();
        m_list->m_loopStep = LoopStep::Discover;
        m_list->openLink(line.path());
        m_list->onTimerStateLoopTimeout();
        return m_list->m_grippers.size() == 2;
    };
    QTRY_VERIFY_WITH_TIMEOUT(discoverBoth(), 30000);
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    QCOMPARE(m_list->getPrintableState(), QByteArray("RUNNING"));
    line.clearTraffic();
    // The loop repeats failed requests. With this time-out every request gets its answer.
    m_list->m_modbus.setConstraints({4000, 0, 0});

    // Read, write, read, write: a new gripper always has new output.
    for (int tick = 0; tick < 4; ++tick)
        m_list->onTimerStateLoopTimeout();

    QStringList visits;
    for (const QString &request : line.requests()) {
        if (request.endsWith(QStringLiteral("000")))
            visits.append(request);
    }
    QCOMPARE(visits.join(QStringLiteral(", ")),
             QStringLiteral("9 read 2000, 9 write 1000, 2 read 2000, 2 write 1000"));
}

void tst_GripperList::rescanReplacesEveryGripperWithANewObject()
{
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    const auto old = m_list->getGripperFromSlaveId(9);
    QVERIFY(old);
    old->setSpeedRequest(77);
    QVERIFY(old->updateOutput());

    m_list->discoverState();

    const auto fresh = m_list->getGripperFromSlaveId(9);
    QVERIFY(fresh);
    QVERIFY(fresh != old);
    // The old object no longer changes.
    QCOMPARE(old->getSpeedRequest(), quint8{77});
    QCOMPARE(fresh->getSpeedRequest(), quint8{0});
}

void tst_GripperList::fieldThatWasNotSentBeforeTheRescanReachesTheNewObject()
{
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    QVERIFY(m_list->getGripperFromSlaveId(9));
    m_list->getGripperFromSlaveId(9)->setSpeedRequest(77);

    m_list->discoverState();
    m_list->discoverState();

    QVERIFY(m_list->getGripperFromSlaveId(9));
    QCOMPARE(m_list->getGripperFromSlaveId(9)->getSpeedRequest(), quint8{77});
}

void tst_GripperList::fieldSetDuringTheScanReachesTheNewObject_data()
{
    QTest::addColumn<QString>("setAt");
    QTest::newRow("before its status is read") << "9 read 500";
    QTest::newRow("while an absent id is probed") << "4 read 500";
}

void tst_GripperList::fieldSetDuringTheScanReachesTheNewObject()
{
    QFETCH(QString, setAt);
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    QVERIFY(m_list->getGripperFromSlaveId(9));
    QVERIFY(m_list->getGripperFromSlaveId(9)->updateOutput());
    onceSeen(line, setAt, [&] {
        m_list->getGripperFromSlaveId(9)->setSpeedRequest(77);
        m_list->getGripperFromSlaveId(9)->setActivateRequest();
    });

    m_list->discoverState();

    QVERIFY(m_list->getGripperFromSlaveId(9));
    const auto fresh = m_list->getGripperFromSlaveId(9);
    QCOMPARE(fresh->getSpeedRequest(), quint8{77});
    QCOMPARE(fresh->getActivateRequest(), quint8{1});
}

// The old object already has the value, but the new one starts with another value.
void tst_GripperList::fieldSetToItsOldValueDuringTheScanReachesTheNewObject()
{
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    QVERIFY(m_list->getGripperFromSlaveId(9));
    const auto old = m_list->getGripperFromSlaveId(9);
    old->setSpeedRequest(77);
    old->setForceRequest(88);
    QVERIFY(old->updateOutput());
    onceSeen(line, QStringLiteral("9 read 604"), [&] { old->setSpeedRequest(77); });

    m_list->discoverState();

    QVERIFY(m_list->getGripperFromSlaveId(9));
    QCOMPARE(m_list->getGripperFromSlaveId(9)->getSpeedRequest(), quint8{77});
    QCOMPARE(m_list->getGripperFromSlaveId(9)->getForceRequest(), quint8{0});
}

void tst_GripperList::fieldSetDuringNestedScansReachesTheNewObject()
{
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    QVERIFY(m_list->getGripperFromSlaveId(9));
    QVERIFY(m_list->getGripperFromSlaveId(9)->updateOutput());
    // The three fields change before the inner scan, inside it, and after it in the outer scan.
    onceSeen(line, QStringLiteral("2 read 500"), [&] {
        m_list->getGripperFromSlaveId(9)->setSpeedRequest(11);
        onceSeen(line, QStringLiteral("3 read 500"),
                 [&] { m_list->getGripperFromSlaveId(9)->setForceRequest(22); });
        m_list->requestScanBlock();
        // On a busy machine the scan may miss the gripper.
        QVERIFY(m_list->getGripperFromSlaveId(9));
        m_list->getGripperFromSlaveId(9)->setMaxPeakSupplyCurrent(33);
    });

    m_list->requestScanBlock();

    QVERIFY(m_list->getGripperFromSlaveId(9));
    const auto fresh = m_list->getGripperFromSlaveId(9);
    QCOMPARE(fresh->getSpeedRequest(), quint8{11});
    QCOMPARE(fresh->getForceRequest(), quint8{22});
    QCOMPARE(fresh->getMaxPeakSupplyCurrent(), quint8{33});
}

void tst_GripperList::gripperThatIsFoundAgainSoonKeepsUnsentFields_data()
{
    QTest::addColumn<bool>("isTooLate");
    QTest::addColumn<quint8>("speed");
    QTest::newRow("soon") << false << quint8{77};
    QTest::newRow("too late") << true << quint8{0};
}

void tst_GripperList::gripperThatIsFoundAgainSoonKeepsUnsentFields()
{
    QFETCH(bool, isTooLate);
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    QVERIFY(m_list->getGripperFromSlaveId(9));
    m_list->getGripperFromSlaveId(9)->setSpeedRequest(77);
    m_list->m_modbus.disconnectFromDevice();

    m_list->discoverState();
    QVERIFY(m_list->getDiscoveredSlaveIds().isEmpty());
    if (isTooLate)
        m_list->m_predecessors[9].lifetime.setRemainingTime(0);
    m_list->scan(line.path());

    QVERIFY(m_list->getGripperFromSlaveId(9));
    QTEST(m_list->getGripperFromSlaveId(9)->getSpeedRequest(), "speed");
}

void tst_GripperList::latestGripperIsTheOneInTheList()
{
    SimulatedLine line{{9, "TA3-1.6.14"}};
    m_list->scan(line.path());
    QVERIFY(m_list->getGripperFromSlaveId(9));
    const auto old = m_list->getGripperFromSlaveId(9);
    QCOMPARE(m_list->latest(old), old);
    m_list->scan(line.path());
    QVERIFY(m_list->latest(old) != old);
    QCOMPARE(m_list->latest(old), m_list->getGripperFromSlaveId(9));
    line.bus().removeGripper(9);
    m_list->scan(line.path());
    QCOMPARE(m_list->latest(old), old);
}

void tst_GripperList::rescanAddsNewGrippersAndRemovesMissingOnes()
{
    SimulatedLine line{{9, "TA3-1.6.14"}, {3, "TF1-2.0.2"}};
    m_list->scan(line.path());
    m_list->m_currentSlaveId = 9;
    line.bus().removeGripper(9);
    line.bus().addGripper(4, QStringLiteral("TB1-1.4.3"));

    m_list->discoverState();

    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{3, 4}));
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(3));
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    QVERIFY(m_list->m_modbus.isConnected());
}

void tst_GripperList::scanDisturbedByAnotherRemovesNoGripper_data()
{
    QTest::addColumn<QString>("disturbedAt");
    // The inner scan begins inside this request of the outer scan.
    QTest::newRow("firmware version") << "9 read 500";
    QTest::newRow("status") << "9 read 2000";
    QTest::newRow("absent gripper") << "4 read 500";
}

void tst_GripperList::scanDisturbedByAnotherRemovesNoGripper()
{
    QFETCH(QString, disturbedAt);
    SimulatedLine line{{9, "TA3-1.6.14"}, {2, "TE1-2.0.2"}};
    m_list->scan(line.path());
    line.clearTraffic();
    bool disturbed = false;
    connect(&line.bus(), &sim::BusSimulator::frameSeen, this, [&] {
        if (disturbed || !line.requests().endsWith(disturbedAt))
            return;
        disturbed = true;
        QTimer::singleShot(0, this, [&] { m_list->requestScanBlock(); });
    });

    m_list->requestScanBlock();

    QVERIFY(disturbed);
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Running);
    QVERIFY(!m_list->m_busy);
    disconnect(&line.bus(), nullptr, this, nullptr);
}

void tst_GripperList::gripperThatOnlyTheInnerScanFindsStays()
{
    SimulatedLine line{{2, "TE1-2.0.2"}};
    m_list->scan(line.path());
    // The outer scan has already probed the id 9.
    onceSeen(line, QStringLiteral("2 read 500"), [&] {
        line.bus().addGripper(9, QStringLiteral("TA3-1.6.14"));
        m_list->requestScanBlock();
    });

    m_list->requestScanBlock();

    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
}

QTEST_GUILESS_MAIN(tst_GripperList)
#include "tst_gripperlistdiscovery.moc"
