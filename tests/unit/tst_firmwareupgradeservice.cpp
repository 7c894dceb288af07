#include "firmwareupgradeservice.h"

#include "logcapture.h"
#include "workingdirectory.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <memory>

/// Shell scripts replace the flashing program.
class tst_FirmwareUpgradeService : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void programGetsTheArgumentsInTheWorkingDirectory();
    void commandIsLogged();
    void exitCodeIsPassedOn_data();
    void exitCodeIsPassedOn();
    void programKilledByASignalHasFinished();
    void programThatDoesNotStartHasNotFinished_data();
    void programThatDoesNotStartHasNotFinished();
    void upgradeCanStartAfterOneThatDidNot();
    void upgradeCanStartAfterAnother();
    void isUpgradingWhileTheProgramRuns();
    void outputIsLoggedOnOneLine_data();
    void outputIsLoggedOnOneLine();
    void outputInPiecesIsLoggedInPieces();
    void standardInputStaysOpen();
    void destructionEndsTheProgramSilently();

private:
    void writeProgram(const QByteArray &script);
    bool start(FirmwareUpgradeService &service);
    QStringList logAfterTheCommand() const { return m_log->infos().mid(1); }

    std::unique_ptr<WorkingDirectory> m_directory;
    std::unique_ptr<LogCapture> m_log;
};

void tst_FirmwareUpgradeService::init()
{
    m_directory = std::make_unique<WorkingDirectory>();
    m_log = std::make_unique<LogCapture>();
}

void tst_FirmwareUpgradeService::cleanup()
{
    QCOMPARE(m_log->warnings(), QStringList());
    m_log.reset();
    m_directory.reset();
}

void tst_FirmwareUpgradeService::writeProgram(const QByteArray &script)
{
    m_directory->writeScript(QStringLiteral("romflasher"), script);
}

bool tst_FirmwareUpgradeService::start(FirmwareUpgradeService &service)
{
    return service.startUpgrade(QStringLiteral("firmware/TA3-1.6.14.bin"), 19200,
                                QStringLiteral("ttyUSB0"));
}

void tst_FirmwareUpgradeService::programGetsTheArgumentsInTheWorkingDirectory()
{
    writeProgram("printf '%s\\n' \"$0\" \"$@\" > called; pwd -P >> called");
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(
        service.startUpgrade(QStringLiteral("firmware/a b.bin"), 115200, QStringLiteral("ttyS3")));
    QTRY_COMPARE(finished.size(), 1);
    QFile called(QStringLiteral("called"));
    QVERIFY(called.open(QIODevice::ReadOnly));
    QCOMPARE(called.readAll(), "./romflasher\n-p\n/dev/ttyS3\n-b\n115200\n-f\nfirmware/a b.bin\n"
                               "-d\n-g\n" +
                                   m_directory->path().toUtf8() + '\n');
}

void tst_FirmwareUpgradeService::commandIsLogged()
{
    writeProgram("exit 0");
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(service));
    const QString line =
        QStringLiteral(R"(command :  "./romflasher" ("-p", "/dev/ttyUSB0", "-b", "19200", "-f", )"
                       R"("firmware/TA3-1.6.14.bin", "-d", "-g"))");
    QCOMPARE(m_log->infos(), QStringList{line});
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(m_log->infos(), QStringList{line});
}

void tst_FirmwareUpgradeService::exitCodeIsPassedOn_data()
{
    QTest::addColumn<int>("exitCode");
    for (const int exitCode : {0, 1, 5, 255})
        QTest::addRow("%d", exitCode) << exitCode;
}

void tst_FirmwareUpgradeService::exitCodeIsPassedOn()
{
    QFETCH(int, exitCode);
    writeProgram("exit " + QByteArray::number(exitCode));
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(service));
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished[0][0].toInt(), exitCode);
    QVERIFY(!service.isUpgrading());
}

void tst_FirmwareUpgradeService::programKilledByASignalHasFinished()
{
    writeProgram("kill -9 $$");
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(service));
    QTRY_COMPARE(finished.size(), 1);
    QVERIFY(!service.isUpgrading());
}

void tst_FirmwareUpgradeService::programThatDoesNotStartHasNotFinished_data()
{
    QTest::addColumn<bool>("exists");
    QTest::newRow("missing") << false;
    QTest::newRow("not executable") << true;
}

void tst_FirmwareUpgradeService::programThatDoesNotStartHasNotFinished()
{
    QFETCH(bool, exists);
    if (exists) {
        writeProgram("exit 0");
        QVERIFY(QFile::setPermissions(QStringLiteral("romflasher"), QFile::ReadOwner));
    }
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(!start(service));
    QVERIFY(!service.isUpgrading());
    QTest::qWait(100);
    QCOMPARE(finished.size(), 0);
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("command : ")).size(), 1);
}

void tst_FirmwareUpgradeService::upgradeCanStartAfterOneThatDidNot()
{
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(!start(service));
    writeProgram("exit 3");
    QVERIFY(start(service));
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished[0][0].toInt(), 3);
}

void tst_FirmwareUpgradeService::upgradeCanStartAfterAnother()
{
    writeProgram("exit 4");
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    for (int run = 1; run <= 3; ++run) {
        QVERIFY(start(service));
        QTRY_COMPARE(finished.size(), run);
    }
}

void tst_FirmwareUpgradeService::isUpgradingWhileTheProgramRuns()
{
    writeProgram("until test -e end; do sleep 0.01; done");
    FirmwareUpgradeService service;
    QVERIFY(!service.isUpgrading());
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    bool upgradingAtTheEnd = true;
    connect(&service, &FirmwareUpgradeService::upgradeFinished, this,
            [&] { upgradingAtTheEnd = service.isUpgrading(); });
    QVERIFY(start(service));
    QVERIFY(service.isUpgrading());
    QTest::qWait(100);
    QVERIFY(service.isUpgrading());
    QCOMPARE(finished.size(), 0);
    QVERIFY(QFile(QStringLiteral("end")).open(QIODevice::WriteOnly));
    QTRY_COMPARE(finished.size(), 1);
    QVERIFY(!upgradingAtTheEnd);
    QVERIFY(!service.isUpgrading());
}

void tst_FirmwareUpgradeService::outputIsLoggedOnOneLine_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::addColumn<QString>("line");

    const auto row = [](const char *name, const char *script, const char *line) {
        QTest::newRow(name) << QByteArray(script) << QString::fromLatin1(line);
    };
    row("line breaks", R"(printf 'one\ntwo\r\n')", R"("one\ntwo\r\n")");
    row("control bytes", R"(printf 'a\tb\001\033')", R"("a\tb\x01\x1B")");
    row("quotes", R"(printf 'say "x" \\')", R"("say \"x\" \\")");
    row("standard error", R"(printf 'failed: 5\n' >&2)", R"("failed: 5\n")");
    row("without a line break", "printf done", R"("done")");
}

void tst_FirmwareUpgradeService::outputIsLoggedOnOneLine()
{
    QFETCH(QByteArray, script);
    QFETCH(QString, line);
    writeProgram(script);
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(service));
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(logAfterTheCommand(), QStringList{line});
}

void tst_FirmwareUpgradeService::outputInPiecesIsLoggedInPieces()
{
    // The script writes each piece after the log has the previous one.
    writeProgram("printf 'one\\n'\n"
                 "until test -e 1; do sleep 0.01; done\n"
                 "printf 'two\\n' >&2\n"
                 "until test -e 2; do sleep 0.01; done\n"
                 "printf 'three\\n'");
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(service));
    const QStringList lines{QStringLiteral(R"("one\n")"), QStringLiteral(R"("two\n")"),
                            QStringLiteral(R"("three\n")")};
    for (int piece = 1; piece <= 2; ++piece) {
        QTRY_COMPARE(logAfterTheCommand(), lines.mid(0, piece));
        QVERIFY(QFile(QString::number(piece)).open(QIODevice::WriteOnly));
    }
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(logAfterTheCommand(), lines);
}

void tst_FirmwareUpgradeService::standardInputStaysOpen()
{
    // A read from an open pipe neither ends nor fails.
    writeProgram("test -p /dev/stdin || exit 9\n"
                 "timeout 0.2 cat\n"
                 "test $? -eq 124 && exit 7");
    FirmwareUpgradeService service;
    QSignalSpy finished(&service, &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(service));
    QTRY_COMPARE(finished.size(), 1);
    QCOMPARE(finished[0][0].toInt(), 7);
}

void tst_FirmwareUpgradeService::destructionEndsTheProgramSilently()
{
    writeProgram("echo $$; exec sleep 60");
    auto service = std::make_unique<FirmwareUpgradeService>();
    QSignalSpy finished(service.get(), &FirmwareUpgradeService::upgradeFinished);
    QVERIFY(start(*service));
    QTRY_COMPARE(logAfterTheCommand().size(), 1);
    const QString digits = logAfterTheCommand()[0].mid(1).section(QLatin1Char('\\'), 0, 0);
    const pid_t program = digits.toInt();
    QVERIFY(program > 1);
    QCOMPARE(::kill(program, 0), 0);
    QElapsedTimer clock;
    clock.start();
    service.reset();
    QVERIFY(clock.elapsed() < 1000);
    QVERIFY(::kill(program, 0) != 0);
    QTest::qWait(50);
    QCOMPARE(finished.size(), 0);
}

QTEST_GUILESS_MAIN(tst_FirmwareUpgradeService)
#include "tst_firmwareupgradeservice.moc"
