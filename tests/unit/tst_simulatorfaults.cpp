#include "failure.h"
#include "faulttext.h"
#include "tst_simulatorbench.h"

#include <QMetaEnum>
#include <QTest>

namespace {
const char *const activateRequest = "09 10 03 e8 00 03 06 01 00 00 00 00 00 72 e1";

bool isActivated(SimulatorBench &bench)
{
    return bench.gripper.registers().body().command().activate;
}
} // namespace

class TestSimulatorFaults : public QObject
{
    Q_OBJECT

private slots:
    void faultChangesTheAnswer_data();
    void faultChangesTheAnswer();
    void lateAnswerComesAfterItsDelayAndNotBefore();
    void deafGripperDoesNotCarryTheRequestOut();
    void silentGripperCarriesTheRequestOut();
    void exceptionIsNotCarriedOut();
    void noiseAndTrailingBytesSurroundAWholeAnswer();
    void countedFaultEndsAfterItsRequests();
    void shareAffectsThatPartOfTheRequests();
    void sameSeedGivesTheSameRun();
    void scopedFaultDoesNotAffectOtherRequests();
    void requestsForOtherGrippersDoNotCount();
    void faultsCombine();
    void everyKindHasItsRow();
    void textOfAFaultReadsBackAsTheSameFault_data();
    void textOfAFaultReadsBackAsTheSameFault();
    void wrongWordsAreRefused_data();
    void wrongWordsAreRefused();
};

void TestSimulatorFaults::faultChangesTheAnswer_data()
{
    QTest::addColumn<QByteArray>("words");
    QTest::addColumn<QByteArray>("answer");
    const auto row = [](const char *name, const char *words, const QByteArray &answer) {
        QTest::newRow(name) << QByteArray(words) << answer;
    };
    row("deaf", "deaf", "");
    row("silent", "silent", "");
    row("exception", "exception", "09 83 04 c1 31");
    row("wrong id", "wrongId always 10", "0a 03 06 54 41 33 01 06 0e bf 7e");
    row("wrong function", "wrongFunction", "09 04 06 54 41 33 01 06 0e ea 68");
    row("bad CRC", "badCrc", "09 03 06 54 41 33 01 06 0e ab 71");
    row("truncated", "truncated always 4", "09 03 06 54 41 33 01");
    row("truncated to nothing", "truncated always 200", "");
    row("echo", "echo", QByteArray(versionRequest) + ' ' + versionAnswer);
}

void TestSimulatorFaults::faultChangesTheAnswer()
{
    QFETCH(QByteArray, words);
    QFETCH(QByteArray, answer);
    SimulatorBench bench;
    bench.setFault(words.constData());
    QCOMPARE(bench.ask(versionRequest), answer);
    bench.gripper.faults().clear();
    bench.waitForSilence();
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorFaults::lateAnswerComesAfterItsDelayAndNotBefore()
{
    SimulatorBench bench;
    bench.setFault("late always 80");
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    bench.timeline.advanceMs(79);
    QCOMPARE(bench.answered(), QByteArray());
    bench.timeline.advanceMs(1);
    QCOMPARE(bench.answered(), QByteArray(versionAnswer));
}

void TestSimulatorFaults::deafGripperDoesNotCarryTheRequestOut()
{
    SimulatorBench bench;
    bench.setFault("deaf");
    QCOMPARE(bench.ask(activateRequest), QByteArray());
    QVERIFY(!isActivated(bench));
}

void TestSimulatorFaults::silentGripperCarriesTheRequestOut()
{
    SimulatorBench bench;
    bench.setFault("silent");
    QCOMPARE(bench.ask(activateRequest), QByteArray());
    QVERIFY(isActivated(bench));
}

void TestSimulatorFaults::exceptionIsNotCarriedOut()
{
    SimulatorBench bench;
    bench.setFault("exception always 3");
    QCOMPARE(bench.ask(activateRequest), QByteArray("09 90 03 8d c3"));
    QVERIFY(!isActivated(bench));
}

void TestSimulatorFaults::noiseAndTrailingBytesSurroundAWholeAnswer()
{
    SimulatorBench bench;
    bench.setFault("noise always 2");
    bench.setFault("trailing always 5");
    bench.ask(versionRequest);
    const QByteArray answer = QByteArray::fromHex(versionAnswer);
    QCOMPARE(bench.sent.size(), answer.size() + 7);
    QCOMPARE(bench.sent.mid(2, answer.size()), answer);
}

void TestSimulatorFaults::countedFaultEndsAfterItsRequests()
{
    SimulatorBench bench;
    bench.setFault("silent 2");
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
    QVERIFY(bench.gripper.faults().faults().isEmpty());
}

void TestSimulatorFaults::shareAffectsThatPartOfTheRequests()
{
    SimulatorBench bench;
    bench.setFault("silent 30%");
    int silent = 0;
    for (int i = 0; i < 1000; ++i)
        silent += bench.ask(versionRequest).isEmpty() ? 1 : 0;
    // The seed makes the number repeatable. It is 300 with a tolerance of three deviations.
    QVERIFY2(qAbs(silent - 300) < 45, qPrintable(QString::number(silent)));
}

void TestSimulatorFaults::sameSeedGivesTheSameRun()
{
    QByteArray runs[2];
    for (QByteArray &run : runs) {
        SimulatorBench bench;
        bench.setFault("silent 50%");
        bench.setFault("noise 50% 4");
        for (int i = 0; i < 20; ++i)
            run.append(bench.ask(versionRequest) + "\n");
    }
    QVERIFY(runs[0].contains(versionAnswer));
    QCOMPARE(runs[0], runs[1]);
}

void TestSimulatorFaults::scopedFaultDoesNotAffectOtherRequests()
{
    SimulatorBench bench;
    bench.setFault("silent on writes");
    QCOMPARE(bench.ask(activateRequest), QByteArray());
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
    bench.setFault("silent on reads");
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    QVERIFY(!bench.ask(activateRequest).isEmpty());
    bench.setFault("silent 1 on 2000");
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
    QCOMPARE(bench.ask("09 03 07 d0 00 03 04 0e"), QByteArray());
    QVERIFY(!bench.ask("09 03 07 d0 00 03 04 0e").isEmpty());
}

void TestSimulatorFaults::requestsForOtherGrippersDoNotCount()
{
    SimulatorBench bench;
    bench.setFault("silent 1");
    bench.ask("02 03 01 f4 00 03 45 f6");
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    QCOMPARE(bench.ask(versionRequest), QByteArray(versionAnswer));
}

void TestSimulatorFaults::faultsCombine()
{
    SimulatorBench bench;
    bench.setFault("late 1 20");
    bench.setFault("badCrc 1");
    bench.setFault("echo 1");
    QCOMPARE(bench.ask(versionRequest), QByteArray());
    bench.timeline.advanceMs(20);
    QCOMPARE(bench.answered(), QByteArray(versionRequest) + " 09 03 06 54 41 33 01 06 0e ab 71");
}

void TestSimulatorFaults::everyKindHasItsRow()
{
    const auto kinds = QMetaEnum::fromType<sim::FaultKind>();
    for (int i = 0; i < kinds.keyCount(); ++i) {
        const sim::Fault fault = sim::parseFault({QString::fromLatin1(kinds.key(i))});
        QCOMPARE(static_cast<int>(fault.kind), kinds.value(i));
    }
    QCOMPARE(sim::faultHelp().size(), kinds.keyCount());
}

void TestSimulatorFaults::textOfAFaultReadsBackAsTheSameFault_data()
{
    QTest::addColumn<QString>("words");
    QTest::addColumn<QString>("text");
    const char *const rows[][2] = {
        {"silent", "silent always"},
        {"Silent 5", "silent 5"},
        {"late 30% 80", "late 30% 80"},
        {"late", "late always 80"},
        {"late 100% 20", "late always 20"},
        {"badcrc 0x10", "badCrc 16"},
        {"exception 2 6 on writes", "exception 2 6 on writes"},
        {"deaf on 0x7d0", "deaf always on 2000"},
        {"truncated 1 on reads", "truncated 1 3 on reads"},
        {"nackwrite 2", "nackWrite 2"},
        {"diesDuringWrite 1 5", "diesDuringWrite 1 5"},
        {"diesDuringWrite", "diesDuringWrite always 3"},
    };
    for (const auto &row : rows)
        QTest::newRow(row[0]) << QString::fromLatin1(row[0]) << QString::fromLatin1(row[1]);
}

void TestSimulatorFaults::textOfAFaultReadsBackAsTheSameFault()
{
    QFETCH(QString, words);
    QFETCH(QString, text);
    QCOMPARE(sim::faultText(sim::parseFault(words.split(QLatin1Char(' ')))), text);
    QCOMPARE(sim::faultText(sim::parseFault(text.split(QLatin1Char(' ')))), text);
}

void TestSimulatorFaults::wrongWordsAreRefused_data()
{
    QTest::addColumn<QString>("words");
    const char *const rows[] = {"nonsense",
                                "late often",
                                "late 0 80",
                                "late 101% 80",
                                "late 5 0",
                                "late 5 60001",
                                "silent 5 80",
                                "late 5 80 90",
                                "silent on sundays",
                                "silent -1",
                                "silent on 70000",
                                "late 5%% 80",
                                "",
                                "exception 1 256",
                                "refuseGo 1 2",
                                "nackWrite always on writes",
                                "diesDuringWrite 1 0"};
    for (const char *row : rows)
        QTest::newRow(row) << QString::fromLatin1(row);
}

void TestSimulatorFaults::wrongWordsAreRefused()
{
    QFETCH(QString, words);
    QVERIFY_EXCEPTION_THROWN(sim::parseFault(words.split(QLatin1Char(' '))), sim::Failure);
}

QTEST_GUILESS_MAIN(TestSimulatorFaults)
#include "tst_simulatorfaults.moc"
