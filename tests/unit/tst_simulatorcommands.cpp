#include "commandinterpreter.h"
#include "failure.h"
#include "manualtimeline.h"
#include "programoptions.h"

#include <QSignalSpy>
#include <QTest>

using sim::BusSimulator;
using sim::ProgramOptions;

namespace {
/// A line with one gripper, which is not plugged in, and the interpreter of its commands.
struct Bench
{
    Bench() { simulator.addGripper(9, QStringLiteral("TA3-1.6.14")); }

    QStringList execute(const char *line) { return interpreter.execute(QString::fromLatin1(line)); }
    QString answer(const char *line) { return execute(line).join(QLatin1Char('\n')); }

    sim::ManualTimeline timeline;
    BusSimulator simulator{BusSimulator::Config(), &timeline};
    sim::CommandInterpreter interpreter{simulator};
};

ProgramOptions optionsOf(const char *arguments)
{
    return ProgramOptions::fromArguments(QString::fromLatin1(arguments)
                                             .prepend(QLatin1String("sim "))
                                             .simplified()
                                             .split(QLatin1Char(' ')));
}
} // namespace

class TestSimulatorCommands : public QObject
{
    Q_OBJECT

private slots:
    void wrongCommandGetsOneErrorLine_data();
    void wrongCommandGetsOneErrorLine();
    void emptyLinesAndCommentsHaveNoAnswer();
    void setPinsComputedRegistersAndStoresOthers();
    void releaseEndsOnePinOrAll();
    void addAndRemoveChangeTheLine();
    void addTakesSerialAndYear();
    void faultAndClearReachTheGripper();
    void faultCodeShowsInTheStatusBlock();
    void objectStopsTheFingers();
    void restartMakesTheGripperBoot();
    void showNamesTheStateWithoutFirmware();
    void plugAndUnplugChangeThePort();
    void showListsEverythingAndEndsWithOk();
    void quitIsForwarded();
    void optionsDescribeTheLine();
    void optionsHaveDefaults();
    void wrongOptionsAreRefused_data();
    void wrongOptionsAreRefused();
};

void TestSimulatorCommands::wrongCommandGetsOneErrorLine_data()
{
    QTest::addColumn<QString>("line");
    const char *const rows[] = {"dance",
                                "fault",
                                "fault 9",
                                "fault 3 silent",
                                "fault 9 silent often",
                                "set 9 2001",
                                "set 9 700 1",
                                "set 9 2001 65536",
                                "set 3 2001 1",
                                "get 9 503",
                                "get 9 2000 126",
                                "object 9 256",
                                "object 3 10",
                                "faultcode 9 16",
                                "release 3",
                                "remove 3",
                                "remove 0",
                                "restart 300",
                                "clear 3",
                                "add 9=TA3-1.6.14",
                                "add 3=XX1-1.0.0",
                                "add 0=TA3-1.6.14",
                                "add 3=TA3-1.6.14 serial=LONG-1",
                                "add 3=TA3-1.6.256",
                                "unplug now"};
    for (const char *row : rows)
        QTest::newRow(row) << QString::fromLatin1(row);
}

void TestSimulatorCommands::wrongCommandGetsOneErrorLine()
{
    QFETCH(QString, line);
    Bench bench;
    const QStringList answer = bench.interpreter.execute(line);
    QCOMPARE(answer.size(), 1);
    QVERIFY2(answer.first().startsWith(QLatin1String("error ")), qPrintable(answer.first()));
    QCOMPARE(bench.simulator.grippers().size(), 1);
}

void TestSimulatorCommands::emptyLinesAndCommentsHaveNoAnswer()
{
    Bench bench;
    QCOMPARE(bench.execute("  "), QStringList());
    QCOMPARE(bench.execute("# fault 9 silent"), QStringList());
}

void TestSimulatorCommands::setPinsComputedRegistersAndStoresOthers()
{
    Bench bench;
    QCOMPARE(bench.answer("set 9 2001 0x0300"), QStringLiteral("ok"));
    QCOMPARE(bench.answer("get 9 2000 3"), QStringLiteral("ok 0x0000 0x0300 0x0000"));
    QCOMPARE(bench.answer("set 9 514 2020"), QStringLiteral("ok"));
    QCOMPARE(bench.simulator.registerValue(9, 514), std::optional<quint16>(2020));
    QCOMPARE(bench.simulator.gripper(9)->registers().pins().keys(), QList<quint16>{2001});
}

void TestSimulatorCommands::releaseEndsOnePinOrAll()
{
    Bench bench;
    bench.execute("set 9 2001 1");
    bench.execute("pin 9 439 2");
    bench.execute("pin 9 600 3");
    QCOMPARE(bench.answer("release 9 2001"), QStringLiteral("ok"));
    QCOMPARE(bench.answer("get 9 2001"), QStringLiteral("ok 0x0000"));
    QCOMPARE(bench.answer("get 9 439"), QStringLiteral("ok 0x0002"));
    QCOMPARE(bench.answer("release 9"), QStringLiteral("ok"));
    QCOMPARE(bench.answer("get 9 600"), QStringLiteral("ok 0x0000"));
}

void TestSimulatorCommands::addAndRemoveChangeTheLine()
{
    Bench bench;
    QCOMPARE(bench.answer("add 2=TE1-2.0.2"), QStringLiteral("ok"));
    QVERIFY(bench.simulator.gripper(2) != nullptr);
    QVERIFY(bench.simulator.gripper(2)->identity().isVacuum());
    QCOMPARE(bench.answer("remove 9"), QStringLiteral("ok"));
    QVERIFY(bench.simulator.gripper(9) == nullptr);
}

void TestSimulatorCommands::addTakesSerialAndYear()
{
    Bench bench;
    QCOMPARE(bench.answer("add 3=TB1-1.4.3 serial=ABC-0042 year=2023"), QStringLiteral("ok"));
    QCOMPARE(bench.answer("get 3 510 5"), QStringLiteral("ok 0x4142 0x4300 0x002a 0x0000 0x07e7"));
}

void TestSimulatorCommands::faultAndClearReachTheGripper()
{
    Bench bench;
    QCOMPARE(bench.answer("fault 9 late 30% 80"), QStringLiteral("ok"));
    const QVector<sim::Fault> faults = bench.simulator.gripper(9)->faults().faults();
    QCOMPARE(faults.size(), 1);
    QCOMPARE(faults.first().sharePercent, 30);
    QCOMPARE(faults.first().value, 80);
    QCOMPARE(bench.answer("clear"), QStringLiteral("ok"));
    QVERIFY(bench.simulator.gripper(9)->faults().faults().isEmpty());
}

void TestSimulatorCommands::faultCodeShowsInTheStatusBlock()
{
    Bench bench;
    QCOMPARE(bench.answer("faultcode 9 11"), QStringLiteral("ok"));
    QCOMPARE(bench.answer("get 9 2001"), QStringLiteral("ok 0x0b00"));
}

void TestSimulatorCommands::objectStopsTheFingers()
{
    Bench bench;
    QCOMPARE(bench.answer("object 9 140"), QStringLiteral("ok"));
    bench.execute("set 9 1000 0x0900");
    bench.execute("set 9 1001 200");
    bench.timeline.advanceMs(10000);
    QCOMPARE(bench.answer("get 9 2000"), QStringLiteral("ok 0xb900"));
    QCOMPARE(bench.simulator.registerValue(9, 2002).value_or(0) >> 8, 140);
    QCOMPARE(bench.answer("object 9 none"), QStringLiteral("ok"));
    bench.timeline.advanceMs(10000);
    QCOMPARE(bench.simulator.registerValue(9, 2002), std::optional<quint16>(200 * 256));
}

void TestSimulatorCommands::restartMakesTheGripperBoot()
{
    Bench bench;
    bench.execute("set 9 434 0x0103");
    QCOMPARE(bench.answer("restart 9"), QStringLiteral("ok"));
    QVERIFY(bench.answer("show").contains(QLatin1String(" booting")));
    bench.timeline.advanceMs(800);
    QVERIFY(!bench.answer("show").contains(QLatin1String(" booting")));
    QVERIFY(bench.simulator.gripper(3) != nullptr);
}

void TestSimulatorCommands::showNamesTheStateWithoutFirmware()
{
    Bench bench;
    bench.simulator.gripper(9)->restartIntoBootloader();
    bench.timeline.advanceMs(300);
    QVERIFY(bench.execute("show").at(1).endsWith(QLatin1String("year=2024 bootloader")));
    bench.simulator.gripper(9)->cutPower();
    QVERIFY(bench.execute("show").at(1).endsWith(QLatin1String("year=2024 dead")));
    QCOMPARE(bench.answer("restart 9"), QStringLiteral("ok"));
    bench.timeline.advanceMs(800);
    QVERIFY(bench.execute("show").at(1).endsWith(QLatin1String("year=2024")));
}

void TestSimulatorCommands::plugAndUnplugChangeThePort()
{
    Bench bench;
    QVERIFY(bench.answer("plug").startsWith(QLatin1String("ok /dev/pts/")));
    QVERIFY(bench.simulator.isPlugged());
    QCOMPARE(bench.answer("unplug"), QStringLiteral("ok"));
    QVERIFY(!bench.simulator.isPlugged());
    QCOMPARE(bench.answer("unplug"), QStringLiteral("ok"));
}

void TestSimulatorCommands::showListsEverythingAndEndsWithOk()
{
    Bench bench;
    bench.execute("fault 9 silent 5 on writes");
    bench.execute("set 9 2001 0x0300");
    QCOMPARE(bench.execute("show"),
             (QStringList{QStringLiteral("port unplugged"),
                          QStringLiteral("gripper 9 TA3-1.6.14 serial=SIM-1009 year=2024"),
                          QStringLiteral("  status=0 position=0 object=0 current=0 fault=0"),
                          QStringLiteral("  fault silent 5 on writes"),
                          QStringLiteral("  pin 2001 0x0300"), QStringLiteral("ok")}));
}

void TestSimulatorCommands::quitIsForwarded()
{
    Bench bench;
    QSignalSpy asked(&bench.interpreter, &sim::CommandInterpreter::quitRequested);
    QCOMPARE(bench.answer("quit"), QStringLiteral("ok"));
    QCOMPARE(asked.size(), 1);
}

void TestSimulatorCommands::optionsDescribeTheLine()
{
    const ProgramOptions options = optionsOf(
        "--gripper 9=TA3-1.6.14 --gripper 2=TE1-2.0.2 --serial 9=ABC-0042 --year 2=2021 "
        "--object 9=140 --link /tmp/line --boot-ms 100 --activation-ms 200 --seed 7 --mode 666 "
        "--bootloader-boot-ms 50 --bootloader-bps 19200 "
        "--trace-file /tmp/trace --quit-at-eof");
    QCOMPARE(options.grippers.size(), 2);
    QCOMPARE(options.grippers.at(0).identity.serialText(), QStringLiteral("ABC-42"));
    QCOMPARE(options.grippers.at(1).slaveId, quint8(2));
    QCOMPARE(options.grippers.at(1).identity.year, quint16(2021));
    QCOMPARE(options.objects.value(9), 140);
    QCOMPARE(options.config.linkPath, QStringLiteral("/tmp/line"));
    QCOMPARE(options.config.timing.bootMs, 100);
    QCOMPARE(options.config.timing.activationMs, 200);
    QCOMPARE(options.config.timing.bootloaderBootMs, 50);
    QCOMPARE(options.config.timing.bootloaderBitsPerSecond, 19200);
    QCOMPARE(options.config.seed, 7U);
    QCOMPARE(options.config.portMode, 0666U);
    QVERIFY(options.trace);
    QCOMPARE(options.traceFile, QStringLiteral("/tmp/trace"));
    QVERIFY(options.quitAtEndOfInput);
}

void TestSimulatorCommands::optionsHaveDefaults()
{
    const ProgramOptions options = optionsOf("");
    QCOMPARE(options.config.linkPath, QStringLiteral("/dev/ttyTool"));
    QVERIFY(options.grippers.isEmpty());
    QVERIFY(!options.trace);
    QVERIFY(optionsOf("--no-link").config.linkPath.isEmpty());
}

void TestSimulatorCommands::wrongOptionsAreRefused_data()
{
    QTest::addColumn<QString>("arguments");
    const char *const rows[] = {"--gripper 9",
                                "--gripper 9=TC1-1.0.0",
                                "--gripper 248=TA3-1.6.14",
                                "--gripper 9=TA3-1.6.14 --gripper 9=TB1-1.4.3",
                                "--serial 9=ABC-1",
                                "--gripper 9=TA3-1.6.14 --serial 9=ABC",
                                "--gripper 9=TA3-1.6.14 --year 9=70000",
                                "--gripper 9=TA3-1.6.14 --object 9=300",
                                "--object 9=100",
                                "--boot-ms soon",
                                "--bootloader-boot-ms -1",
                                "--bootloader-bps fast",
                                "--mode 999",
                                "--mode 0",
                                "--seed -1",
                                "--frobnicate",
                                "9=TA3-1.6.14"};
    for (const char *row : rows)
        QTest::newRow(row) << QString::fromLatin1(row);
}

void TestSimulatorCommands::wrongOptionsAreRefused()
{
    QFETCH(QString, arguments);
    QVERIFY_EXCEPTION_THROWN(optionsOf(arguments.toLatin1().constData()), sim::Failure);
}

QTEST_GUILESS_MAIN(TestSimulatorCommands)
#include "tst_simulatorcommands.moc"
