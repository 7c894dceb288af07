#include "tst_simulatorbench.h"

#include <QTest>

namespace {
const char *const restartRequest = "09 10 01 90 00 01 02 56 00 f3 a0";
const char *const restartAnswer = "09 10 01 90 00 01 01 50";
} // namespace

class TestSimulatorProtocol : public QObject
{
    Q_OBJECT

private slots:
    void requestGetsItsAnswerAtOnce_data();
    void requestGetsItsAnswerAtOnce();
    void requestIsNotAnswered_data();
    void requestIsNotAnswered();
    void requestInPiecesIsAnsweredAfterItsLastByte();
    void twoRequestsInOnePieceGetTwoAnswers();
    void requestDirectlyAfterGarbageIsIgnored();
    void lateTimerDoesNotHideTheSilenceBeforeARequest();
    void noiseIsDroppedAtTheNextSilence();
    void unknownFunctionIsRefusedAfterTheSilence();
    void writeWithWrongByteCountIsRefusedAfterTheSilence();
    void identityIsStoredOnlyOnCommandWithItsCharactersReordered();
    void settingsWithoutStoreWordAreLostInARestart();
    void storedSlaveIdAppliesAfterTheRestart();
    void slaveIdOutsideTheRangeIsRefused();
    void speedLimitNeedsItsCommandWord();
    void bootingGripperIsSilentForTheBootTime();
    void restartDuringABootStartsTheBootAgain();
    void pinnedRegisterKeepsItsValueWhenWritten();
    void framesForOthersAndNoiseAreReported();
    void answerIsLostWhenTheMasterHasChangedTheRate();
};

void TestSimulatorProtocol::requestGetsItsAnswerAtOnce_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("version") << QByteArray(versionRequest) << QByteArray(versionAnswer);
    QTest::newRow("inputs after power-on")
        << QByteArray("09 03 07 d0 00 03 04 0e") << QByteArray("09 03 06 00 00 00 00 00 00 46 b5");
    QTest::newRow("write of the outputs")
        << QByteArray("09 10 03 e8 00 03 06 01 00 00 00 00 00 72 e1")
        << QByteArray("09 10 03 e8 00 03 01 30");
    QTest::newRow("restart") << QByteArray(restartRequest) << QByteArray(restartAnswer);
    QTest::newRow("no such register")
        << QByteArray("09 03 02 bc 00 01 45 1e") << QByteArray("09 83 02 41 33");
    QTest::newRow("last register of a block and the next one")
        << QByteArray("09 03 01 f6 00 02 24 8d") << QByteArray("09 83 02 41 33");
    QTest::newRow("zero registers")
        << QByteArray("09 03 07 d0 00 00 44 0f") << QByteArray("09 83 03 80 f3");
    QTest::newRow("write of a read-only register")
        << QByteArray("09 10 07 d0 00 01 02 00 01 65 00") << QByteArray("09 90 02 4c 03");
    QTest::newRow("function code of known length")
        << QByteArray("09 04 07 d0 00 01 30 0f") << QByteArray("09 84 01 03 02");
}

void TestSimulatorProtocol::requestGetsItsAnswerAtOnce()
{
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, answer);
    SimulatorBench bench;
    QCOMPARE(bench.ask(request.constData()), answer);
}

void TestSimulatorProtocol::requestIsNotAnswered_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("baudRate");
    QTest::newRow("other slave id") << QByteArray("02 03 01 f4 00 03 45 f6") << 115200;
    QTest::newRow("broadcast") << QByteArray("00 03 01 f4 00 03 44 14") << 115200;
    QTest::newRow("bad CRC") << QByteArray("09 03 01 f4 00 03 44 8c") << 115200;
    QTest::newRow("wrong rate") << QByteArray(versionRequest) << 19200;
    QTest::newRow("incomplete") << QByteArray("09 03 01 f4 00 03 44") << 115200;
    QTest::newRow("single byte") << QByteArray("7f") << 115200;
}

void TestSimulatorProtocol::requestIsNotAnswered()
{
    QFETCH(QByteArray, request);
    QFETCH(int, baudRate);
    SimulatorBench bench;
    QCOMPARE(bench.ask(request.constData(), baudRate), QByteArray());
    bench.timeline.advanceMs(1000);
    QCOMPARE(bench.answered(), QByteArray());
    QCOMPARE(bench.seen.size(), 1);
    QCOMPARE(bench.seen.first().bytes, QByteArray::fromHex(request));
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::requestInPiecesIsAnsweredAfterItsLastByte()
{
    SimulatorBench bench;
    QCOMPARE(bench.ask("09 03 01"), QByteArray());
    bench.timeline.advanceMs(3);
    QCOMPARE(bench.ask("f4 00 03 44"), QByteArray());
    bench.timeline.advanceMs(3);
    QCOMPARE(bench.ask("8d"), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::twoRequestsInOnePieceGetTwoAnswers()
{
    SimulatorBench bench;
    QCOMPARE(bench.ask("09 03 01 f4 00 03 44 8d 09 03 07 d0 00 03 04 0e"),
             QByteArray(versionAnswer) + " 09 03 06 00 00 00 00 00 00 46 b5");
}

void TestSimulatorProtocol::requestDirectlyAfterGarbageIsIgnored()
{
    SimulatorBench bench;
    QCOMPARE(bench.ask("55 09 03 01 f4 00 03 44 8d"), QByteArray());
    bench.waitForSilence();
    QCOMPARE(bench.answered(), QByteArray());
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::lateTimerDoesNotHideTheSilenceBeforeARequest()
{
    // This clock never calls an action, so only the arrival times show the silence.
    class StoppedTimeline : public sim::Timeline
    {
    public:
        qint64 nowUs() const override { return now; }
        void onNextDueChanged() override {}
        qint64 now = 0;
    };
    StoppedTimeline timeline;
    sim::Line line(timeline);
    sim::RandomSource random;
    const auto identity = sim::GripperIdentity::fromVersion(9, QStringLiteral("TA3-1.6.14"));
    const sim::SimulatedGripper gripper(9, *identity, sim::GripperTiming(), line, timeline, random);
    QByteArray sent;
    connect(&line, &sim::Line::bytesToMaster, this,
            [&sent](const QByteArray &bytes) { sent.append(bytes); });
    line.receive(QByteArray::fromHex("09 03 ff"), 115200);
    timeline.now = sim::Line::frameGapUs;
    line.receive(QByteArray::fromHex(versionRequest), 115200);
    QCOMPARE(sent.toHex(' '), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::noiseIsDroppedAtTheNextSilence()
{
    SimulatorBench bench;
    const QByteArray noise(300, 'U');
    for (int i = 0; i < 20; ++i)
        bench.line.receive(noise, 115200);
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    bench.waitForSilence();
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::unknownFunctionIsRefusedAfterTheSilence()
{
    SimulatorBench bench;
    // The request is a ReportSlaveIdRequest of pymodbus.
    QCOMPARE(bench.ask("09 11 c7 ec"), QByteArray());
    bench.waitForSilence();
    QCOMPARE(bench.answered(), QByteArray("09 91 01 0d 92"));
}

void TestSimulatorProtocol::writeWithWrongByteCountIsRefusedAfterTheSilence()
{
    SimulatorBench bench;
    // A write of 3 registers with a byte count of 4. The CRC comes from pymodbus' computeCRC.
    QCOMPARE(bench.ask("09 10 03 e8 00 03 04 01 00 00 00 00 00 51 21"), QByteArray());
    bench.waitForSilence();
    QCOMPARE(bench.answered(), QByteArray("09 90 03 8d c3"));
}

void TestSimulatorProtocol::identityIsStoredOnlyOnCommandWithItsCharactersReordered()
{
    SimulatorBench bench;
    sim::RegisterBank &registers = bench.gripper.registers();
    const QVector<quint16> before = registers.read(510, 5);
    // "XYZ" with its first character in the low byte, then 70000, then 2025.
    QCOMPARE(registers.write(510, {0x5958, 0x005A, 4464, 1}), sim::ModbusException::None);
    QCOMPARE(registers.write(514, {2025}), sim::ModbusException::None);
    QCOMPARE(registers.read(510, 5), before);
    QCOMPARE(registers.write(401, {0x4900}), sim::ModbusException::None);
    QCOMPARE(registers.read(510, 5), (QVector<quint16>{0x5859, 0x5A00, 4464, 1, 2025}));
}

void TestSimulatorProtocol::settingsWithoutStoreWordAreLostInARestart()
{
    SimulatorBench bench;
    sim::RegisterBank &registers = bench.gripper.registers();
    const quint16 before = registers.read(434, 1).first();
    QCOMPARE(registers.write(434, {0x0104}), sim::ModbusException::None);
    QCOMPARE(registers.read(434, 1), QVector<quint16>{0x0104});
    bench.gripper.restart();
    bench.timeline.advanceMs(1000);
    QCOMPARE(registers.read(434, 1), QVector<quint16>{before});
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::storedSlaveIdAppliesAfterTheRestart()
{
    SimulatorBench bench;
    QVector<quint16> settings = bench.gripper.registers().read(430, 5);
    QCOMPARE(settings.last() & 0xFF, 9);
    settings.last() = static_cast<quint16>((settings.last() & 0xFF00) | 3);
    QCOMPARE(bench.gripper.registers().write(430, settings + QVector<quint16>{0, 0x0036}),
             sim::ModbusException::None);
    QCOMPARE(bench.gripper.registers().read(430, 5), settings);
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
    QCOMPARE(bench.ask(restartRequest), QByteArray(restartAnswer));
    bench.timeline.advanceMs(1000);
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    bench.waitForSilence();
    QCOMPARE(bench.ask("03 03 01 f4 00 03 44 27"), QByteArray("03 03 06 54 41 33 01 06 0e d5 2e"));
}

void TestSimulatorProtocol::slaveIdOutsideTheRangeIsRefused()
{
    SimulatorBench bench;
    sim::RegisterBank &registers = bench.gripper.registers();
    QCOMPARE(registers.write(434, {0x0100, 0, 0x0036}), sim::ModbusException::IllegalValue);
    QCOMPARE(registers.write(434, {0x01F8, 0, 0x0036}), sim::ModbusException::IllegalValue);
    QCOMPARE(registers.write(434, {0x01F7, 0, 0x0036}), sim::ModbusException::None);
    QCOMPARE(registers.storedSlaveId(), quint8(247));
}

void TestSimulatorProtocol::speedLimitNeedsItsCommandWord()
{
    SimulatorBench bench;
    sim::RegisterBank &registers = bench.gripper.registers();
    QCOMPARE(registers.write(438, {130, 100}), sim::ModbusException::None);
    QCOMPARE(registers.read(439, 1), QVector<quint16>{100});
    QCOMPARE(registers.write(438, {131, 60}), sim::ModbusException::IllegalValue);
    QCOMPARE(registers.write(439, {60}), sim::ModbusException::IllegalValue);
    QCOMPARE(registers.read(439, 1), QVector<quint16>{100});
}

void TestSimulatorProtocol::bootingGripperIsSilentForTheBootTime()
{
    SimulatorBench bench;
    bench.ask(restartRequest);
    bench.timeline.advanceMs(799);
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    QVERIFY(bench.gripper.isBooting());
    bench.timeline.advanceMs(1);
    QVERIFY(!bench.gripper.isBooting());
    bench.waitForSilence();
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorProtocol::restartDuringABootStartsTheBootAgain()
{
    SimulatorBench bench;
    bench.gripper.restart();
    bench.timeline.advanceMs(500);
    bench.gripper.restart();
    bench.timeline.advanceMs(799);
    QVERIFY(bench.gripper.isBooting());
    bench.timeline.advanceMs(1);
    QVERIFY(!bench.gripper.isBooting());
}

void TestSimulatorProtocol::pinnedRegisterKeepsItsValueWhenWritten()
{
    SimulatorBench bench;
    sim::RegisterBank &registers = bench.gripper.registers();
    QVERIFY(registers.set(2001, 0x03AB));
    QCOMPARE(registers.read(2000, 3), (QVector<quint16>{0, 0x03AB, 0}));
    QVERIFY(registers.pin(439, 80));
    QCOMPARE(registers.write(438, {130, 100}), sim::ModbusException::None);
    QCOMPARE(registers.read(439, 1), QVector<quint16>{80});
    registers.releaseAll();
    QCOMPARE(registers.read(439, 1), QVector<quint16>{100});
    QCOMPARE(registers.read(2001, 1), QVector<quint16>{0});
    QVERIFY(!registers.pin(700, 1));
}

void TestSimulatorProtocol::framesForOthersAndNoiseAreReported()
{
    SimulatorBench bench;
    bench.timeline.advanceMs(7);
    bench.ask("02 03 01 f4 00 03 45 f6");
    bench.ask("7f", 19200);
    bench.timeline.advanceMs(20);
    bench.ask(versionRequest);
    using Direction = sim::FrameRecord::Direction;
    QCOMPARE(bench.seen.size(), 4);
    QCOMPARE(bench.seen.at(0).bytes, QByteArray::fromHex("02 03 01 f4 00 03 45 f6"));
    QCOMPARE(bench.seen.at(0).timeUs, qint64(7000));
    QCOMPARE(bench.seen.at(1).bytes, QByteArray::fromHex("7f"));
    QCOMPARE(bench.seen.at(2).bytes, QByteArray::fromHex(versionRequest));
    QCOMPARE(bench.seen.at(2).direction, Direction::Request);
    QCOMPARE(bench.seen.at(3).bytes, QByteArray::fromHex(versionAnswer));
    QCOMPARE(bench.seen.at(3).direction, Direction::Answer);
    QCOMPARE(bench.seen.at(3).timeUs, qint64(27000));
}

void TestSimulatorProtocol::answerIsLostWhenTheMasterHasChangedTheRate()
{
    SimulatorBench bench;
    sim::Fault late;
    late.kind = sim::FaultKind::Late;
    late.value = 50;
    bench.gripper.faults().set(late);
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    bench.waitForSilence();
    bench.ask("7f", 19200);
    bench.timeline.advanceMs(100);
    QCOMPARE(bench.answered(), QByteArray());
}

QTEST_GUILESS_MAIN(TestSimulatorProtocol)
#include "tst_simulatorprotocol.moc"
