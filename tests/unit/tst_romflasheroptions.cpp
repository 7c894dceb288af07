#include "flasheroptions.h"
#include "flasheroutcome.h"
#include "stm32flashrun.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

namespace {
FlasherOptions optionsOf(const char *arguments)
{
    return FlasherOptions::fromArguments(QString::fromLatin1(arguments)
                                             .prepend(QLatin1String("romflasher "))
                                             .simplified()
                                             .split(QLatin1Char(' ')));
}
} // namespace

class TestRomflasherOptions : public QObject
{
    Q_OBJECT

private slots:
    void bothBootloadersHaveTheirAddressAndRoom_data();
    void bothBootloadersHaveTheirAddressAndRoom();
    void flagsAreOffUnlessGiven();
    void badArgumentsAreRefused_data();
    void badArgumentsAreRefused();
    void helpExplains();
    void stm32flashGetsItsArguments_data();
    void stm32flashGetsItsArguments();
    void everyFailureHasItsCodeAndSaysWhatToDoNext_data();
    void everyFailureHasItsCodeAndSaysWhatToDoNext();
    void startWritesNothing();
    void stm32flashThatStallsIsEnded();
    void missingStm32flashIsSaid();
};

void TestRomflasherOptions::bothBootloadersHaveTheirAddressAndRoom_data()
{
    QTest::addColumn<QByteArray>("baudRate");
    QTest::addColumn<quint32>("address");
    QTest::addColumn<qint64>("capacity");
    QTest::newRow("rom") << QByteArray("19200") << 0x08000000U << qint64(1048576);
    QTest::newRow("own") << QByteArray("115200") << 0x08080000U << qint64(524288);
}

void TestRomflasherOptions::bothBootloadersHaveTheirAddressAndRoom()
{
    QFETCH(QByteArray, baudRate);
    QFETCH(quint32, address);
    QFETCH(qint64, capacity);
    const FlasherOptions options =
        optionsOf("-p /dev/ttyS3 -b " + baudRate + " -f firmware/TF1-2.0.2.bin -d -g");
    QCOMPARE(options.outcome, FlasherOptions::Outcome::Run);
    QCOMPARE(options.device, QStringLiteral("/dev/ttyS3"));
    QCOMPARE(options.imagePath, QStringLiteral("firmware/TF1-2.0.2.bin"));
    QCOMPARE(options.target.baudRate, baudRate.toInt());
    QCOMPARE(options.target.address, address);
    QCOMPARE(options.target.capacity, capacity);
    QVERIFY(options.isVerbose);
    QVERIFY(options.startsFirmware);
}

void TestRomflasherOptions::flagsAreOffUnlessGiven()
{
    const FlasherOptions options = optionsOf("-f image -b 19200 -p /dev/ttyTool");
    QCOMPARE(options.outcome, FlasherOptions::Outcome::Run);
    QVERIFY(!options.isVerbose);
    QVERIFY(!options.startsFirmware);
}

void TestRomflasherOptions::badArgumentsAreRefused_data()
{
    QTest::addColumn<QByteArray>("arguments");
    const char *const rows[] = {"-b 19200 -f image",
                                "-p /dev/ttyTool -f image",
                                "-p /dev/ttyTool -b 19200",
                                "-p /dev/ttyTool -b 9600 -f image",
                                "-p /dev/ttyTool -b 019200 -f image",
                                "-p /dev/ttyTool -b fast -f image",
                                "-p /dev/ttyTool -p /dev/ttyS0 -b 19200 -f image",
                                "-p /dev/ttyTool -b 19200 -b 115200 -f image",
                                "-p /dev/ttyTool -b 19200 -f image more",
                                "-p /dev/ttyTool -b 19200 -f image -x",
                                "-p /dev/ttyTool -b 19200 -f"};
    for (const char *row : rows)
        QTest::newRow(row) << QByteArray(row);
}

void TestRomflasherOptions::badArgumentsAreRefused()
{
    QFETCH(QByteArray, arguments);
    const FlasherOptions options = optionsOf(arguments.constData());
    QCOMPARE(options.outcome, FlasherOptions::Outcome::Refuse);
    QVERIFY(!options.text.isEmpty());
    QVERIFY(!options.text.contains(QLatin1Char('\n')));
}

void TestRomflasherOptions::helpExplains()
{
    const FlasherOptions options = optionsOf("--help");
    QCOMPARE(options.outcome, FlasherOptions::Outcome::Explain);
    for (const char *word : {"-p", "-b", "-f", "-d", "-g", "0x08080000", "Exit codes"})
        QVERIFY2(options.text.contains(QLatin1String(word)), word);
}

void TestRomflasherOptions::stm32flashGetsItsArguments_data()
{
    QTest::addColumn<QByteArray>("arguments");
    QTest::addColumn<QString>("expected");
    QTest::newRow("rom, started")
        << QByteArray("-p /dev/ttyUSB0 -b 19200 -f a.bin -d -g")
        << QStringLiteral("-b 19200 -m 8e1 -f -S 0x08000000 -w copy -v -g 0x08000000 "
                          "/dev/ttyUSB0");
    QTest::newRow("own, not started")
        << QByteArray("-p /dev/ttyTool -b 115200 -f e.bin")
        << QStringLiteral("-b 115200 -m 8e1 -f -S 0x08080000 -w copy -v /dev/ttyTool");
}

void TestRomflasherOptions::stm32flashGetsItsArguments()
{
    QFETCH(QByteArray, arguments);
    QFETCH(QString, expected);
    const FlasherOptions options = optionsOf(arguments.constData());
    const QStringList words =
        Stm32FlashRun::writeArguments(options, QStringLiteral("8e1"), QStringLiteral("copy"));
    QCOMPARE(words.join(QLatin1Char(' ')), expected);
}

void TestRomflasherOptions::everyFailureHasItsCodeAndSaysWhatToDoNext_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("line");
    QTest::newRow("done") << 0 << QString();
    QTest::newRow("cannot begin") << 2
                                  << QStringLiteral("cannot begin: why; fix that and try again");
    QTest::newRow("port") << 3
                          << QStringLiteral("port not available: why; free the port and try again");
    QTest::newRow("no bootloader")
        << 4
        << QStringLiteral("no bootloader answered: why; nothing was written: switch the gripper "
                          "off and on, send it into its bootloader, and try again");
    QTest::newRow("write") << 5
                           << QStringLiteral("firmware not written: why; switch the gripper off "
                                             "and on, and flash it again");
    QTest::newRow("start") << 6
                           << QStringLiteral("firmware written but not started: why; switch the "
                                             "gripper off and on to start it");
    QTest::newRow("no progress") << 7
                                 << QStringLiteral("no progress: why; switch the gripper off and "
                                                   "on, and flash it again");
}

void TestRomflasherOptions::everyFailureHasItsCodeAndSaysWhatToDoNext()
{
    QFETCH(int, code);
    QFETCH(QString, line);
    QCOMPARE(lineFor(static_cast<FlasherOutcome>(code), QStringLiteral("why")), line);
}

void TestRomflasherOptions::startWritesNothing()
{
    const FlasherOptions options = optionsOf("-p /dev/ttyUSB0 -b 115200 -f e.bin -g");
    const QStringList words = Stm32FlashRun::startArguments(options, QStringLiteral("8e1"));
    QCOMPARE(words.join(QLatin1Char(' ')),
             QStringLiteral("-b 115200 -m 8e1 -g 0x08080000 /dev/ttyUSB0"));
}

void TestRomflasherOptions::stm32flashThatStallsIsEnded()
{
    const QTemporaryDir folder;
    QFile program(folder.filePath(QStringLiteral("stm32flash")));
    QVERIFY(program.open(QIODevice::WriteOnly));
    // Its output comes in time twice, and then no more.
    program.write("#!/bin/sh\nfor i in 1 2; do /bin/sleep 0.3; echo; done\nexec /bin/sleep 60\n");
    program.close();
    QVERIFY(program.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(folder.path()));
    Stm32FlashRun run(optionsOf("-p /dev/ttyTool -b 19200 -f a.bin"), QStringLiteral("8e1"), 500);
    QElapsedTimer timer;
    timer.start();
    const FlasherOutcome outcome = run.start();
    qputenv("PATH", path);
    QCOMPARE(outcome, FlasherOutcome::Stalled);
    QVERIFY2(timer.elapsed() >= 600 + 500, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(timer.elapsed() < 10'000);
    QCOMPARE(run.problem(), QStringLiteral("stm32flash printed nothing for 0.5 s and was ended"));
}

void TestRomflasherOptions::missingStm32flashIsSaid()
{
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", "/nowhere");
    const FirmwareFile image(QCoreApplication::applicationFilePath(), 1 << 30);
    Stm32FlashRun run(optionsOf("-p /dev/ttyTool -b 19200 -f a.bin"), QStringLiteral("8e1"));
    const FlasherOutcome outcome = run.write(image);
    qputenv("PATH", path);
    QCOMPARE(outcome, FlasherOutcome::CannotBegin);
    QVERIFY2(run.problem().contains(QLatin1String("stm32flash")), qPrintable(run.problem()));
}

QTEST_GUILESS_MAIN(TestRomflasherOptions)
#include "tst_romflasheroptions.moc"
