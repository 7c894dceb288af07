#include "gripperlist.h"

#include "logcapture.h"
#include "simulatedline.h"

#include <QSignalSpy>
#include <QTest>

#include <memory>
#include <optional>

namespace {

// Long enough for every answer, also on a busy machine.
constexpr int patientTimeoutMs = 100;
// For tests in which every request gets its answer, so that only the answer ends the wait.
constexpr int veryLongTimeoutMs = 4000;

QStringList listOf(const char *texts)
{
    return QString::fromLatin1(texts).split(QStringLiteral(", "));
}

const QStringList inputReads9 = listOf("9 read 2000, 9 read 600, 9 read 602, 9 read 604");
const QStringList inputReads2 = listOf("2 read 2000, 2 read 600, 2 read 602, 2 read 604");
const QString write9 = QStringLiteral("9 write 1000");
const QByteArray running("RUNNING");
constexpr int retryLimit = GripperList::__maxGripperCommunicationRetries;

// Runs `action` once, inside the next wait for the line.
template <class Action>
void duringTheNextWait(Action action)
{
    QTimer::singleShot(0, action);
}

} // namespace

/// The state loop, on a line with grippers at 2 and 9. The tests call the ticks, except those about
/// the timer.
class tst_GripperList : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void newListIsScanningAndHasNoGrippers();
    void linkStatusHasItsText_data();
    void linkStatusHasItsText();
    void unknownSlaveIdIsNullAndChangesNothing();
    void modbusNameIsThatOfThePortInUse();

    void discoverSendsNothingWhileItsPauseRuns();
    void discoverThatFindsGrippersGoesToSelectNext();
    void discoverThatFindsNothingPausesAndKeepsTheStatus_data();
    void discoverThatFindsNothingPausesAndKeepsTheStatus();
    void failedDiscoveryIsRepeatedNoSoonerThanASecondLater();
    void selectNextWithARequestedScanGoesToDiscover();
    void selectNextWithoutGrippersGoesToDiscover();
    void selectNextAdvancesAndReadsInTheSameTick();
    void selectNextWithoutAPositionTakesTheFirst();
    void oneGripperIsItsOwnSuccessor();

    void accessWithoutACurrentGripperGoesToDiscover_data();
    void accessWithoutACurrentGripperGoesToDiscover();
    void accessThatSucceedsSelectsTheNextStep_data();
    void accessThatSucceedsSelectsTheNextStep();
    void accessBelowTheRetryLimitSucceeds_data();
    void accessBelowTheRetryLimitSucceeds();
    void successAfterTheRetryLimitCountsAsFailure_data();
    void successAfterTheRetryLimitCountsAsFailure();
    void accessThatKeepsFailingClosesTheLink_data();
    void accessThatKeepsFailingClosesTheLink();
    void accessOnALostLinkReportsAScanningError_data();
    void accessOnALostLinkReportsAScanningError();
    void failingCounterFailsTheRead();

    void grippersAreVisitedInAscendingOrder();
    void unchangedOutputIsNotWrittenAndTheSameTickReadsTheNextGripper();
    void changedOutputIsWrittenOnTheNextTick();
    void outputChangedDuringTheReadIsWrittenOnTheNextTick();

    void mutedTickDoesNothing_data();
    void mutedTickDoesNothing();
    void busyTickDoesNothing();

    void intervalThatIsSetRepeatedlyStopsNoTicks_data();
    void intervalThatIsSetRepeatedlyStopsNoTicks();
    void noTickStartsWhileATickWaits();

    void requestedScanWaitsForTheOutputStepAndKeepsTheLink();
    void blockingScanIgnoresThePause();
    void runningBlockingScanIsReportedAsScanning();
    void noTickRunsDuringABlockingScan();
    void blockingScanInsideAnotherRestoresTheBusyFlag();
    void noTickRunsDuringAJumpAndTheBusyFlagIsRestored_data();
    void noTickRunsDuringAJumpAndTheBusyFlagIsRestored();
    void jumpInsideATickWaitsForTheAnswerOfTheTick();
    void scanSetsNoRateWhileAnAnswerIsAwaited();
    void everyObjectMayBeReplacedWhileAStepWaits();
    void gripperMayBeRemovedWhileAStepWaits();
    void positionMovesToTheFirstGripperWhenItsEntryIsRemoved();

    void onlyTheSecondCharacterDecidesTheFamily_data();
    void onlyTheSecondCharacterDecidesTheFamily();

private:
    using LoopStep = GripperList::LoopStep;
    using LinkStatus = GripperList::LinkStatus;

    void setPosition(LoopStep step, std::optional<quint8> position);
    void tick() { m_list->onTimerStateLoopTimeout(); }
    bool isPausing() const { return m_list->m_scanBackOffTimer->isActive(); }
    void addAccessRows();
    void prepareAccess();
    QString accessRequest() const;
    QStringList failureLines(int count) const;

    ModbusConstraintsFactory m_factory;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<SimulatedLine> m_line;
    std::unique_ptr<SimulatedLine> m_emptyLine;
    std::unique_ptr<GripperList> m_list;
    QMap<quint8, GripperList::Gripper> m_found;
};

void tst_GripperList::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
    m_line = std::make_unique<SimulatedLine>(
        std::initializer_list<SimulatedLine::Gripper>{{2, "TE1-2.0.2"}, {9, "TA3-1.6.14"}});
    m_emptyLine = std::make_unique<SimulatedLine>(std::initializer_list<SimulatedLine::Gripper>{});
    m_list = std::make_unique<GripperList>(m_factory, nullptr);
    // No tick has run yet, because no event loop has run. From now on the tests call the ticks.
    m_list->m_stateLoopTimer->stop();
    m_list->openLink(m_line->path());
    m_list->m_modbus.setConstraints({veryLongTimeoutMs, 0, 0});
    for (const quint8 slaveId : {quint8{2}, quint8{9}}) {
        const auto gripper = GripperList::Gripper::create(m_list->m_modbus, slaveId);
        QCOMPARE(gripper->error(), KvDeviceBase::NoError);
        QVERIFY(gripper->updateOutput());
        m_found.insert(slaveId, gripper);
    }
}

void tst_GripperList::init()
{
    for (const quint8 slaveId : {quint8{2}, quint8{9}})
        m_line->bus().clearFaults(slaveId);
    m_list->m_stateLoopTimer->stop();
    m_list->m_scanBackOffTimer->stop();
    m_list->m_modbus.disconnectFromDevice();
    m_list->openLink(m_line->path());
    m_list->m_modbus.setConstraints(ModbusConstraints(patientTimeoutMs, 10, 2));
    m_list->m_grippers = m_found;
    // A failed access of an earlier test leaves new output.
    for (const auto &gripper : qAsConst(m_found)) {
        while (gripper->isNewOutput())
            QVERIFY(gripper->updateOutput());
    }
    m_list->m_linkStatus = LinkStatus::Running;
    m_list->m_scanRequested = false;
    m_list->m_muted = false;
    m_list->m_busy = false;
    setPosition(LoopStep::SelectNext, 2);
    m_line->clearTraffic();
    m_log->clear();
}

void tst_GripperList::cleanup()
{
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_GripperList::cleanupTestCase()
{
    m_found.clear();
    m_list.reset();
    m_log.reset();
}

void tst_GripperList::setPosition(LoopStep step, std::optional<quint8> position)
{
    m_list->m_loopStep = step;
    m_list->m_currentSlaveId = position;
}

void tst_GripperList::newListIsScanningAndHasNoGrippers()
{
    const GripperList list(m_factory, nullptr);

    QCOMPARE(list.getPrintableState(), QByteArray("SCANNING"));
    QCOMPARE(list.getDiscoveredSlaveIds(), QVector<quint8>());
    QCOMPARE(list.getModbusName(), QString());
    QCOMPARE(list.getUpgradeStatus(), 0);
    QCOMPARE(list.m_loopStep, LoopStep::Discover);
    QVERIFY(!list.m_currentSlaveId);
    QVERIFY(!list.m_muted);
    QVERIFY(!list.m_busy);
    QVERIFY(!list.m_scanRequested);
    QVERIFY(list.m_stateLoopTimer->isActive());
    QCOMPARE(list.m_stateLoopTimer->interval(), 50);
    QVERIFY(!list.m_scanBackOffTimer->isActive());
}

void tst_GripperList::linkStatusHasItsText_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("scanning") << 0 << QByteArray("SCANNING");
    QTest::newRow("running") << 1 << QByteArray("RUNNING");
    QTest::newRow("error while scanning") << 2 << QByteArray("ERR_SCANNING (EIO)");
    QTest::newRow("time-out") << 3 << QByteArray("ERR_TIMEOUT");
    QTest::newRow("beyond") << 4 << QByteArray("UNKNOWN_STATE");
    QTest::newRow("negative") << -1 << QByteArray("UNKNOWN_STATE");
}

void tst_GripperList::linkStatusHasItsText()
{
    QFETCH(int, status);
    m_list->m_linkStatus = static_cast<LinkStatus>(status);
    QTEST(m_list->getPrintableState(), "text");
}

void tst_GripperList::unknownSlaveIdIsNullAndChangesNothing()
{
    for (int slaveId = 0; slaveId <= 255; ++slaveId) {
        const auto gripper = m_list->getGripperFromSlaveId(static_cast<quint8>(slaveId));
        QCOMPARE(gripper.isNull(), slaveId != 2 && slaveId != 9);
    }
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
    QCOMPARE(m_list->getGripperFromSlaveId(9)->getSlaveId(), quint8{9});
}

void tst_GripperList::modbusNameIsThatOfThePortInUse()
{
    QCOMPARE(m_list->getModbusName(), m_line->path().mid(QStringLiteral("/dev/").size()));
}

void tst_GripperList::discoverSendsNothingWhileItsPauseRuns()
{
    setPosition(LoopStep::Discover, 2);
    m_list->m_linkStatus = LinkStatus::Timeout;
    m_list->m_scanBackOffTimer->start(60'000);

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Timeout);
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_GripperList::discoverThatFindsGrippersGoesToSelectNext()
{
    m_list->m_grippers.clear();
    setPosition(LoopStep::Discover, {});
    m_list->m_linkStatus = LinkStatus::Scanning;

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Running);
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(2));
    QVERIFY(!isPausing());
}

void tst_GripperList::discoverThatFindsNothingPausesAndKeepsTheStatus_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("scanning") << 0 << QByteArray("SCANNING");
    QTest::newRow("error while scanning") << 2 << QByteArray("ERR_SCANNING (EIO)");
    QTest::newRow("time-out") << 3 << QByteArray("ERR_TIMEOUT");
}

void tst_GripperList::discoverThatFindsNothingPausesAndKeepsTheStatus()
{
    QFETCH(int, status);
    m_list->m_modbus.disconnectFromDevice();
    m_list->openLink(m_emptyLine->path());
    setPosition(LoopStep::Discover, 9);
    m_list->m_linkStatus = static_cast<LinkStatus>(status);

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QTEST(m_list->getPrintableState(), "text");
    QVERIFY(isPausing());
    QCOMPARE(m_list->m_scanBackOffTimer->interval(), 1000);
    QVERIFY(m_list->m_grippers.isEmpty());
    QVERIFY(!m_list->m_currentSlaveId);
    QVERIFY(!m_list->m_modbus.isConnected());
}

// A coarse timer may fire early if it starts at certain milliseconds of the clock's second. The
// second discovery therefore ends at such a millisecond.
void tst_GripperList::failedDiscoveryIsRepeatedNoSoonerThanASecondLater()
{
    const auto millisecondOfTheSecond = [] {
        QElapsedTimer clock;
        clock.start();
        return clock.msecsSinceReference() % 1000;
    };
    const auto discoverNothing = [this] {
        m_list->m_scanBackOffTimer->stop();
        m_list->m_modbus.disconnectFromDevice();
        m_list->openLink(m_emptyLine->path());
        setPosition(LoopStep::Discover, {});
        QElapsedTimer clock;
        clock.start();
        tick();
        return clock.elapsed();
    };
    const qint64 phase = (1000 + 30 - discoverNothing() % 1000) % 1000;
    QTRY_VERIFY(qAbs(millisecondOfTheSecond() - phase) <= 10);
    discoverNothing();

    QElapsedTimer clock;
    clock.start();
    QVERIFY(isPausing());
    m_list->openLink(m_emptyLine->path());
    m_emptyLine->clearTraffic();
    qint64 pausedMs = 0;
    qint64 firstRequestMs = 0;
    connect(m_list->m_scanBackOffTimer, &QTimer::timeout, &m_emptyLine->bus(),
            [&] { pausedMs = clock.elapsed(); });
    connect(&m_emptyLine->bus(), &sim::BusSimulator::frameSeen, m_list->m_scanBackOffTimer, [&] {
        if (firstRequestMs == 0)
            firstRequestMs = clock.elapsed();
    });
    m_list->m_tickIntervalMs = 5;
    m_list->m_stateLoopTimer->start(5);
    QTRY_VERIFY(firstRequestMs != 0);
    m_list->m_stateLoopTimer->stop();
    m_list->m_scanBackOffTimer->disconnect(&m_emptyLine->bus());
    m_emptyLine->bus().disconnect(m_list->m_scanBackOffTimer);
    QTRY_VERIFY(!m_list->m_tickRunning);

    QVERIFY2(firstRequestMs < 1500, qPrintable(QString::number(firstRequestMs)));
    QVERIFY(firstRequestMs > pausedMs);
    // The clock starts a little after the pause begins, and counts whole milliseconds.
    QVERIFY2(pausedMs >= 998, qPrintable(QString::number(pausedMs)));
}

void tst_GripperList::selectNextWithARequestedScanGoesToDiscover()
{
    setPosition(LoopStep::SelectNext, 2);
    m_list->requestScan();
    QVERIFY(m_list->m_scanRequested);

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Scanning);
    QVERIFY(!m_list->m_scanRequested);
    QVERIFY(m_list->m_modbus.isConnected());
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_GripperList::selectNextWithoutGrippersGoesToDiscover()
{
    m_list->m_grippers.clear();
    setPosition(LoopStep::SelectNext, {});

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Scanning);
    QVERIFY(m_list->m_modbus.isConnected());
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_GripperList::selectNextAdvancesAndReadsInTheSameTick()
{
    setPosition(LoopStep::SelectNext, 2);
    m_list->m_linkStatus = LinkStatus::Scanning;

    tick();

    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(9));
    QCOMPARE(m_line->requests(), inputReads9);
    QCOMPARE(m_list->m_loopStep, LoopStep::WriteOutput);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Running);
}

void tst_GripperList::selectNextWithoutAPositionTakesTheFirst()
{
    setPosition(LoopStep::SelectNext, {});

    tick();

    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(2));
    QCOMPARE(m_line->requests(), inputReads2);
}

void tst_GripperList::oneGripperIsItsOwnSuccessor()
{
    m_list->m_grippers.remove(2);
    setPosition(LoopStep::SelectNext, 9);

    tick();
    tick();

    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(9));
    QCOMPARE(m_line->requests(), inputReads9 + inputReads9);
}

void tst_GripperList::addAccessRows()
{
    QTest::addColumn<int>("step");
    QTest::addColumn<int>("stepAfter");
    QTest::addColumn<int>("address");
    QTest::addColumn<QString>("request");
    QTest::addColumn<QString>("text");

    QTest::newRow("read") << 2 << 3 << 2000 << "9 read 2000"
                          << "gripper->updateInput() fail counter: ";
    QTest::newRow("write") << 3 << 1 << 1000 << "9 write 1000"
                           << "gripper->updateOutput() fail counter: ";
}

// Moves the position to gripper 9 and gives it new output.
void tst_GripperList::prepareAccess()
{
    QFETCH(int, step);
    const auto gripper = m_found[9];
    gripper->setSpeedRequest(static_cast<quint8>(gripper->getSpeedRequest() + 1));
    setPosition(static_cast<LoopStep>(step), 9);
    m_list->m_linkStatus = LinkStatus::Scanning;
}

QStringList tst_GripperList::failureLines(int count) const
{
    QFETCH(QString, text);
    QStringList lines;
    for (int number = 1; number <= count; ++number)
        lines.append(text + QLatin1Char(' ') + QString::number(number));
    return lines;
}

QString tst_GripperList::accessRequest() const
{
    QFETCH(QString, request);
    return request;
}

void tst_GripperList::accessWithoutACurrentGripperGoesToDiscover_data()
{
    addAccessRows();
}

void tst_GripperList::accessWithoutACurrentGripperGoesToDiscover()
{
    prepareAccess();
    m_list->m_currentSlaveId.reset();

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->m_linkStatus, LinkStatus::ErrorScanning);
    QVERIFY(m_list->m_modbus.isConnected());
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_GripperList::accessThatSucceedsSelectsTheNextStep_data()
{
    addAccessRows();
}

void tst_GripperList::accessThatSucceedsSelectsTheNextStep()
{
    prepareAccess();

    tick();

    QTEST(static_cast<int>(m_list->m_loopStep), "stepAfter");
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Running);
    QCOMPARE(m_line->requests().count(accessRequest()), 1);
    QCOMPARE(m_log->infos(), QStringList());
}

void tst_GripperList::accessBelowTheRetryLimitSucceeds_data()
{
    addAccessRows();
}

void tst_GripperList::accessBelowTheRetryLimitSucceeds()
{
    QFETCH(int, address);
    prepareAccess();
    m_line->silence(9, static_cast<quint16>(address), retryLimit - 1);

    tick();

    QTEST(static_cast<int>(m_list->m_loopStep), "stepAfter");
    QCOMPARE(m_list->getPrintableState(), running);
    QCOMPARE(m_line->requests().count(accessRequest()), retryLimit);
    QCOMPARE(m_log->infos(), failureLines(retryLimit - 1));
    QVERIFY(m_list->m_modbus.isConnected());
}

void tst_GripperList::successAfterTheRetryLimitCountsAsFailure_data()
{
    addAccessRows();
}

void tst_GripperList::successAfterTheRetryLimitCountsAsFailure()
{
    QFETCH(int, address);
    prepareAccess();
    m_line->silence(9, static_cast<quint16>(address), retryLimit);

    tick();

    QCOMPARE(m_line->requests().count(accessRequest()), retryLimit + 1);
    QCOMPARE(m_line->traffic().last(), QStringLiteral("answer"));
    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->getPrintableState(), QByteArray("ERR_TIMEOUT"));
    QVERIFY(!m_list->m_modbus.isConnected());
    QCOMPARE(m_log->infos(), failureLines(retryLimit));
}

void tst_GripperList::accessThatKeepsFailingClosesTheLink_data()
{
    addAccessRows();
}

void tst_GripperList::accessThatKeepsFailingClosesTheLink()
{
    QFETCH(int, address);
    prepareAccess();
    m_line->silence(9, static_cast<quint16>(address), sim::Fault::unlimited);

    tick();

    QCOMPARE(m_line->requests().count(accessRequest()), retryLimit + 1);
    QCOMPARE(m_line->requests().size(), retryLimit + 1);
    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->getPrintableState(), QByteArray("ERR_TIMEOUT"));
    QVERIFY(!m_list->m_modbus.isConnected());
    QCOMPARE(m_log->infos(), failureLines(retryLimit));
    // Only a discovery removes a gripper from the list.
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
}

void tst_GripperList::accessOnALostLinkReportsAScanningError_data()
{
    addAccessRows();
}

void tst_GripperList::accessOnALostLinkReportsAScanningError()
{
    prepareAccess();
    m_list->m_modbus.disconnectFromDevice();

    tick();

    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->getPrintableState(), QByteArray("ERR_SCANNING (EIO)"));
    QCOMPARE(m_log->infos(), failureLines(retryLimit));
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
}

void tst_GripperList::failingCounterFailsTheRead()
{
    setPosition(LoopStep::ReadInput, 9);
    m_line->silence(9, 604, 1);

    tick();

    QCOMPARE(m_line->requests(), inputReads9 + inputReads9);
    QCOMPARE(m_log->infos(), listOf("gripper->updateInput() fail counter:  1"));
    QCOMPARE(m_list->m_loopStep, LoopStep::WriteOutput);
}

void tst_GripperList::grippersAreVisitedInAscendingOrder()
{
    setPosition(LoopStep::SelectNext, 2);
    for (const auto &gripper : qAsConst(m_found)) {
        if (gripper->isNewOutput())
            QVERIFY(gripper->updateOutput());
    }
    m_line->clearTraffic();

    for (int i = 0; i < 4; ++i)
        tick();

    QCOMPARE(m_line->requests(), inputReads9 + inputReads2 + inputReads9 + inputReads2);
}

void tst_GripperList::unchangedOutputIsNotWrittenAndTheSameTickReadsTheNextGripper()
{
    QVERIFY(m_found[9]->updateOutput());
    QVERIFY(!m_found[9]->isNewOutput());
    setPosition(LoopStep::WriteOutput, 9);
    m_line->clearTraffic();

    tick();

    QCOMPARE(m_line->requests(), inputReads2);
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(2));
    QCOMPARE(m_list->m_loopStep, LoopStep::WriteOutput);
}

void tst_GripperList::changedOutputIsWrittenOnTheNextTick()
{
    setPosition(LoopStep::SelectNext, 2);
    m_found[9]->setPositionRequest(static_cast<quint8>(m_found[9]->getPositionRequest() ^ 1));

    tick();
    QCOMPARE(m_line->requests(), inputReads9);
    tick();
    QCOMPARE(m_line->requests(), inputReads9 + QStringList{write9});
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    tick();
    QCOMPARE(m_line->requests(), inputReads9 + QStringList{write9} + inputReads2);
    QCOMPARE(*m_line->bus().registerValue(9, 1001), m_found[9]->getPositionRequest());
}

void tst_GripperList::outputChangedDuringTheReadIsWrittenOnTheNextTick()
{
    QVERIFY(m_found[9]->updateOutput());
    setPosition(LoopStep::ReadInput, 9);
    m_line->clearTraffic();
    duringTheNextWait([this] {
        m_found[9]->setForceRequest(static_cast<quint8>(m_found[9]->getForceRequest() ^ 1));
    });

    tick();
    tick();

    QCOMPARE(m_line->requests(), inputReads9 + QStringList{write9});
}

void tst_GripperList::mutedTickDoesNothing_data()
{
    QTest::addColumn<int>("step");

    QTest::newRow("discover") << 0;
    QTest::newRow("select next") << 1;
    QTest::newRow("read input") << 2;
    QTest::newRow("write output") << 3;
}

void tst_GripperList::mutedTickDoesNothing()
{
    QFETCH(int, step);
    m_found[9]->setActivateRequest();
    setPosition(static_cast<LoopStep>(step), 9);
    m_list->setMuted(true);

    tick();

    QCOMPARE(static_cast<int>(m_list->m_loopStep), step);
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(9));
    QCOMPARE(m_list->m_linkStatus, LinkStatus::Running);
    QCOMPARE(m_line->requests(), QStringList());
    m_found[9]->clearActivateRequest();
}

void tst_GripperList::busyTickDoesNothing()
{
    m_list->m_busy = true;
    for (const auto step : {LoopStep::Discover, LoopStep::SelectNext, LoopStep::ReadInput}) {
        setPosition(step, 9);
        tick();
        QCOMPARE(m_list->m_loopStep, step);
    }
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_GripperList::intervalThatIsSetRepeatedlyStopsNoTicks_data()
{
    QTest::addColumn<bool>("throttled");
    QTest::addColumn<bool>("alternating");
    QTest::addColumn<int>("atLeast");

    QTest::newRow("throttled") << true << false << 8;
    QTest::newRow("fast") << false << false << 25;
    QTest::newRow("in turn") << true << true << 8;
}

void tst_GripperList::intervalThatIsSetRepeatedlyStopsNoTicks()
{
    QFETCH(bool, throttled);
    QFETCH(bool, alternating);
    QFETCH(int, atLeast);
    m_list->setMuted(true);
    m_list->m_stateLoopTimer->start(50);
    QSignalSpy ticks(m_list->m_stateLoopTimer, &QTimer::timeout);
    int sentCount = 0;
    QTimer client;
    connect(&client, &QTimer::timeout, m_list.get(), [&] {
        ++sentCount;
        m_list->setThrottled(throttled);
        if (alternating)
            throttled = !throttled;
    });
    client.start(2);

    // At least 600 ms. A stall of the machine delays the client, too.
    QTRY_VERIFY_WITH_TIMEOUT(sentCount >= 300, 60'000);

    QVERIFY2(ticks.size() >= atLeast, qPrintable(QString::number(ticks.size())));
}

void tst_GripperList::noTickStartsWhileATickWaits()
{
    setPosition(LoopStep::ReadInput, 9);
    bool wasInside = false;
    duringTheNextWait([&] {
        wasInside = m_list->m_tickRunning;
        tick();
    });

    tick();

    QVERIFY(wasInside);
    QCOMPARE(m_line->requests(), inputReads9);
    QVERIFY(!m_list->m_tickRunning);
    QCOMPARE(m_list->m_loopStep, LoopStep::WriteOutput);
}

void tst_GripperList::requestedScanWaitsForTheOutputStepAndKeepsTheLink()
{
    m_found[9]->setSpeedRequest(static_cast<quint8>(m_found[9]->getSpeedRequest() + 1));
    setPosition(LoopStep::WriteOutput, 9);
    const QString portName = m_list->getModbusName();
    duringTheNextWait([this] { m_list->requestScan(); });

    tick();
    QCOMPARE(m_line->requests(), QStringList{write9});
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    QCOMPARE(m_list->getPrintableState(), running);

    tick();
    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->getPrintableState(), QByteArray("SCANNING"));
    QVERIFY(m_list->m_modbus.isConnected());

    tick();
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
    QCOMPARE(m_list->getPrintableState(), running);
    QCOMPARE(m_list->getModbusName(), portName);
    QVERIFY(m_line->requests().contains(QStringLiteral("9 read 500")));
}

void tst_GripperList::blockingScanIgnoresThePause()
{
    m_list->m_scanBackOffTimer->start(60'000);

    m_list->requestScanBlock();

    QVERIFY(m_line->requests().contains(QStringLiteral("9 read 500")));
    QVERIFY(m_list->m_grippers[9] != m_found[9]);
    QVERIFY(!m_list->m_busy);
    QCOMPARE(m_list->m_loopStep, LoopStep::SelectNext);
}

void tst_GripperList::runningBlockingScanIsReportedAsScanning()
{
    QByteArray meanwhile;
    auto stepMeanwhile = LoopStep::WriteOutput;
    duringTheNextWait([&] {
        meanwhile = m_list->getPrintableState();
        stepMeanwhile = m_list->m_loopStep;
    });

    m_list->requestScanBlock();

    QCOMPARE(meanwhile, QByteArray("SCANNING"));
    QCOMPARE(stepMeanwhile, LoopStep::Discover);
    QCOMPARE(m_list->getPrintableState(), running);
}

void tst_GripperList::noTickRunsDuringABlockingScan()
{
    m_list->m_tickIntervalMs = 5;
    m_list->m_stateLoopTimer->start(5);
    QSignalSpy ticks(m_list->m_stateLoopTimer, &QTimer::timeout);

    m_list->requestScanBlock();
    m_list->m_stateLoopTimer->stop();

    QVERIFY(ticks.size() > 50);
    QCOMPARE(m_line->requests(), listOf("9 read 500, 9 read 514, 9 read 510") + inputReads9 +
                                     listOf("2 read 500, 2 read 514, 2 read 510") + inputReads2 +
                                     listOf("3 read 500, 4 read 500"));
}

void tst_GripperList::blockingScanInsideAnotherRestoresTheBusyFlag()
{
    bool wasBusy = false;
    bool stayedBusy = false;
    duringTheNextWait([&] {
        wasBusy = m_list->m_busy;
        m_list->requestScanBlock();
        stayedBusy = m_list->m_busy;
    });

    m_list->requestScanBlock();

    QVERIFY(wasBusy);
    QVERIFY(stayedBusy);
    QVERIFY(!m_list->m_busy);
    QCOMPARE(m_list->getPrintableState(), running);
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
}

void tst_GripperList::noTickRunsDuringAJumpAndTheBusyFlagIsRestored_data()
{
    QTest::addColumn<bool>("isBusy");
    QTest::newRow("alone") << false;
    QTest::newRow("inside another operation") << true;
}

void tst_GripperList::noTickRunsDuringAJumpAndTheBusyFlagIsRestored()
{
    QFETCH(bool, isBusy);
    m_list->m_busy = isBusy;
    m_list->m_modbus.setConstraints(ModbusConstraints(50, 0, 2));
    m_line->ignoreResets(9);
    setPosition(LoopStep::ReadInput, 2);
    int ticks = 0;
    duringTheNextWait([&] {
        ++ticks;
        tick();
    });

    QVERIFY(!m_list->jumpToBootloader(m_found[9]));

    QCOMPARE(ticks, 1);
    QCOMPARE(m_line->requests(), QStringList{QStringLiteral("9 write 400")});
    QCOMPARE(m_list->m_busy, isBusy);
    QVERIFY(m_list->m_muted);
    // Meanwhile the simulator reads the bytes of the detection. Otherwise a later test gets them.
    QTest::qWait(50);
}

void tst_GripperList::jumpInsideATickWaitsForTheAnswerOfTheTick()
{
    m_list->m_modbus.setConstraints(ModbusConstraints(200, 0, 2));
    m_line->delay(9, 2000, 60);
    m_line->ignoreResets(9);
    setPosition(LoopStep::ReadInput, 9);
    duringTheNextWait([&] { QVERIFY(!m_list->jumpToBootloader(m_found[9])); });

    tick();

    QCOMPARE(m_line->traffic().mid(0, 3),
             (QStringList{QStringLiteral("9 read 2000"), QStringLiteral("answer"),
                          QStringLiteral("9 write 400")}));
}

void tst_GripperList::scanSetsNoRateWhileAnAnswerIsAwaited()
{
    m_list->m_modbus.setConstraints(ModbusConstraints(200, 0, 2));
    m_list->m_modbus.setBaudRate(57600);
    m_line->delay(9, 2000, 60);
    int rateAtTheAnswer = 0;
    QTimer::singleShot(50, Qt::PreciseTimer, m_list.get(),
                       [&] { rateAtTheAnswer = m_list->m_modbus.getBaudrate(); });
    duringTheNextWait([&] { m_list->requestScanBlock(); });
    m_list->m_modbus.readRegisters(9, 2000, 3);
    QCOMPARE(rateAtTheAnswer, 57600);
    QCOMPARE(m_list->m_modbus.getBaudrate(), 115200);
}

void tst_GripperList::everyObjectMayBeReplacedWhileAStepWaits()
{
    setPosition(LoopStep::ReadInput, 9);
    duringTheNextWait([this] { m_list->requestScanBlock(); });

    tick();

    QVERIFY(m_list->m_grippers[9] != m_found[9]);
    QVERIFY(m_list->m_grippers[2] != m_found[2]);
    QCOMPARE(m_list->getPrintableState(), running);
    // The loop continues with the new objects, which have new output.
    m_line->clearTraffic();
    for (int i = 0; i < 4; ++i)
        tick();
    QVERIFY(m_line->requests().contains(write9));
    QVERIFY(!m_list->m_grippers[9]->isNewOutput());
}

void tst_GripperList::gripperMayBeRemovedWhileAStepWaits()
{
    SimulatedLine line{{4, "TB1-1.4.3"}};
    m_list->m_modbus.disconnectFromDevice();
    m_list->scan(line.path());
    QCOMPARE(m_list->getDiscoveredSlaveIds(), (QVector<quint8>{4}));
    QWeakPointer<KvPelloGripper> gripper = m_list->m_grippers[4];
    bool stayedAlive = false;
    setPosition(LoopStep::ReadInput, 4);
    duringTheNextWait([&] {
        line.bus().removeGripper(4);
        m_list->scan(line.path());
        stayedAlive = !gripper.isNull();
    });

    tick();

    QVERIFY(stayedAlive);
    QVERIFY(m_list->m_grippers.isEmpty());
    m_list->m_predecessors.clear();
    QVERIFY(gripper.isNull());
    QVERIFY(!m_list->m_currentSlaveId);
    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->getPrintableState(), QByteArray("ERR_TIMEOUT"));
    m_list->m_modbus.disconnectFromDevice();
}

void tst_GripperList::positionMovesToTheFirstGripperWhenItsEntryIsRemoved()
{
    m_list->m_grippers.insert(4, m_found[2]);
    setPosition(LoopStep::WriteOutput, 9);
    m_list->removeGripper(9);
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(2));

    m_list->removeGripper(4);
    QCOMPARE(m_list->m_currentSlaveId, std::optional<quint8>(2));

    m_list->removeGripper(2);
    QVERIFY(!m_list->m_currentSlaveId);
}

void tst_GripperList::onlyTheSecondCharacterDecidesTheFamily_data()
{
    QTest::addColumn<QByteArray>("letters");
    QTest::addColumn<QByteArray>("families");

    QTest::newRow("TA") << QByteArray("TA3") << QByteArray("pello");
    QTest::newRow("TB") << QByteArray("TB1") << QByteArray("varno");
    QTest::newRow("TE") << QByteArray("TE1") << QByteArray("zentra");
    QTest::newRow("TF") << QByteArray("TF2") << QByteArray("sorbix");
    QTest::newRow("another first letter") << QByteArray("XA3") << QByteArray("pello");
    QTest::newRow("lower case") << QByteArray("Ta3") << QByteArray();
    QTest::newRow("first and third letter only") << QByteArray("ATA") << QByteArray();
    QTest::newRow("no version") << QByteArray() << QByteArray();
}

void tst_GripperList::onlyTheSecondCharacterDecidesTheFamily()
{
    QFETCH(QByteArray, letters);
    SimulatedLine line{};
    if (!letters.isEmpty()) {
        sim::GripperIdentity identity;
        identity.letters = letters;
        QVERIFY(line.bus().addGripper(3, identity));
    }
    KvModbusCustom link(line.path(), nullptr);
    QVERIFY(link.connectToDevice());
    const auto gripper = GripperList::Gripper::create(link, quint16{3});
    QCOMPARE(gripper->getFirmwareVersion().left(3).toLatin1(), letters);

    QByteArray families;
    if (m_list->isPello(gripper))
        families += "pello";
    if (m_list->isVarno(gripper))
        families += "varno";
    if (m_list->isZentra(gripper))
        families += "zentra";
    if (m_list->isSorbix(gripper))
        families += "sorbix";
    QTEST(families, "families");
}

QTEST_GUILESS_MAIN(tst_GripperList)
#include "tst_gripperlist.moc"
