#include "flasherfailure.h"
#include "options.h"
#include "stm32flashrun.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace flasher;

namespace {

Options optionsOf(const char *arguments)
{
    return Options::fromArguments(QString::fromLatin1(arguments)
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
    void stalledStm32flashIsKilled();
    void missingStm32flashIsReported();
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
    const Options options =
        optionsOf("-p /dev/ttyS3 -b " + baudRate + " -f firmware/TF1-2.0.2.bin -d -g");
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
    const Options options = optionsOf("-f image -b 19200 -p /dev/ttyTool");
    QVERIFY(!options.isVerbose);
    QVERIFY(!options.startsFirmware);
}

void TestRomflasherOptions::badArgumentsAreRefused_data()
{
    QTest::addColumn<QByteArray>("arguments");
    QTest::addColumn<QString>("problem");
    const auto row = [](const char *arguments, const char *problem) {
        QTest::newRow(arguments) << QByteArray(arguments) << QString::fromLatin1(problem);
    };
    row("-b 19200 -f image", "-p is missing");
    row("-p /dev/ttyTool -f image", "-b is missing");
    row("-p /dev/ttyTool -b 19200", "-f is missing");
    row("-p /dev/ttyTool -b 9600 -f image", "-b takes 19200 or 115200, not \"9600\"");
    row("-p /dev/ttyTool -b 019200 -f image", "-b takes 19200 or 115200, not \"019200\"");
    row("-p /dev/ttyTool -b fast -f image", "-b takes 19200 or 115200, not \"fast\"");
    row("-p /dev/ttyTool -p /dev/ttyS0 -b 19200 -f image", "-p is given twice");
    row("-p /dev/ttyTool -b 19200 -b 115200 -f image", "-b is given twice");
    row("-p /dev/ttyTool -b 19200 -f image more", "unexpected argument \"more\"");
    row("-p /dev/ttyTool -b 19200 -f image -x", "Unknown option 'x'");
    row("-p /dev/ttyTool -b 19200 -f", "Missing value after '-f'");
}

void TestRomflasherOptions::badArgumentsAreRefused()
{
    QFETCH(QByteArray, arguments);
    QFETCH(QString, problem);
    const Failure failure = failureOf([&] { optionsOf(arguments.constData()); });
    QCOMPARE(failure.code, ExitCode::CannotBegin);
    QCOMPARE(failure.cause, problem + QStringLiteral(", see romflasher --help"));
}

void TestRomflasherOptions::helpExplains()
{
    const QString text = optionsOf("--help").helpText;
    for (const char *word : {"-p", "-b", "-f", "-d", "-g", "0x08080000", "Exit codes"})
        QVERIFY2(text.contains(QLatin1String(word)), word);
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
    const Options options = optionsOf(arguments.constData());
    const QStringList words =
        Stm32FlashRun::writeArguments(options, QStringLiteral("8e1"), QStringLiteral("copy"));
    QCOMPARE(words.join(QLatin1Char(' ')), expected);
}

void TestRomflasherOptions::everyFailureHasItsCodeAndSaysWhatToDoNext_data()
{
    QTest::addColumn<int>("code");
    QTest::addColumn<QString>("line");
    QTest::newRow("cannot begin") << 2
                                  << QStringLiteral("cannot begin: why; fix this and try again");
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
    QCOMPARE(lineFor({static_cast<ExitCode>(code), QStringLiteral("why")}), line);
}

void TestRomflasherOptions::startWritesNothing()
{
    const Options options = optionsOf("-p /dev/ttyUSB0 -b 115200 -f e.bin -g");
    const QStringList words = Stm32FlashRun::startArguments(options, QStringLiteral("8e1"));
    QCOMPARE(words.join(QLatin1Char(' ')),
             QStringLiteral("-b 115200 -m 8e1 -g 0x08080000 /dev/ttyUSB0"));
}

void TestRomflasherOptions::stalledStm32flashIsKilled()
{
    const QTemporaryDir folder;
    QFile program(folder.filePath(QStringLiteral("stm32flash")));
    QVERIFY(program.open(QIODevice::WriteOnly));
    // The script prints twice within the limit, and then nothing.
    program.write("#!/bin/sh\nfor i in 1 2; do /bin/sleep 0.3; echo; done\nexec /bin/sleep 60\n");
    program.close();
    QVERIFY(program.setPermissions(QFile::ReadOwner | QFile::ExeOwner));
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", QFile::encodeName(folder.path()));
    Stm32FlashRun run(optionsOf("-p /dev/ttyTool -b 19200 -f a.bin"), QStringLiteral("8e1"), 500);
    QElapsedTimer timer;
    timer.start();
    const Failure failure = failureOf([&] { run.start(); });
    qputenv("PATH", path);
    QCOMPARE(failure.code, ExitCode::Stalled);
    QVERIFY2(timer.elapsed() >= 600 + 500, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(timer.elapsed() < 10'000);
    QCOMPARE(failure.cause, QStringLiteral("stm32flash printed nothing for 0.5 s and was killed"));
}

void TestRomflasherOptions::missingStm32flashIsReported()
{
    const QByteArray path = qgetenv("PATH");
    qputenv("PATH", "/nowhere");
    const FirmwareFile image(QCoreApplication::applicationFilePath(), 1 << 30);
    Stm32FlashRun run(optionsOf("-p /dev/ttyTool -b 19200 -f a.bin"), QStringLiteral("8e1"));
    const Failure failure = failureOf([&] { run.write(image); });
    qputenv("PATH", path);
    QCOMPARE(failure.code, ExitCode::CannotBegin);
    QVERIFY2(failure.cause.startsWith(QLatin1String("stm32flash cannot be started")),
             qPrintable(failure.cause));
}

QTEST_GUILESS_MAIN(TestRomflasherOptions)
#include "tst_romflasheroptions.moc"
