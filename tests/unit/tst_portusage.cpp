#include "portusage.h"

#include "quitsignals.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <array>
#include <csignal>
#include <cstdio>
#include <sys/time.h>
#include <unistd.h>

namespace {

// Warnings of Qt. The daemon would print them to its log.
QStringList s_warnings;

void noteWarning(QtMsgType /*type*/, const QMessageLogContext & /*context*/, const QString &message)
{
    s_warnings.append(message);
}

const QString none; // the program does not exist
const QString exitsWith0 = QStringLiteral("#!/bin/sh\nexit 0\n");
const QString exitsWith1 = QStringLiteral("#!/bin/sh\nexit 1\n");
const QString exitsWith255 = QStringLiteral("#!/bin/sh\nexit 255\n");
const QString killsItself = QStringLiteral("#!/bin/sh\nkill -9 $$\n");
const QString hasNoInterpreter = QStringLiteral("#!/no/such/interpreter\n");

void install(const QString &path, const QString &script, bool executable = true)
{
    if (script.isEmpty())
        return;
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(script.toLatin1());
    file.setPermissions(executable ? QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner
                                   : QFile::ReadOwner | QFile::WriteOwner);
}

QString contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromLatin1(file.readAll()) : QString();
}

} // namespace

class tst_PortUsage : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void onlyUsbSerialNamesQualify_data();
    void onlyUsbSerialNamesQualify();
    void exitCodesDecide_data();
    void exitCodesDecide();
    void programThatMayNotBeExecutedFallsBack();
    void directoryOfThatNameFallsBack();
    void reportMayBeLeftOut();
    void deviceIsTheOnlyArgument();
    void localProgramRunsInTheWorkingDirectory();
    void outputIsDropped();
    void inputIsEmpty();
    void noEventsRunMeanwhile();
    void quitSignalKillsTheProgram();

private:
    QScopedPointer<QTemporaryDir> m_workingDirectory;
    QScopedPointer<QTemporaryDir> m_searchPath;
    QString m_keptDirectory;
    QByteArray m_keptPath;
    QtMessageHandler m_keptHandler = nullptr;
    QStringList m_reports;
    CommandReport m_report = [this](const QString &command, int exitCode) {
        m_reports.append(command + QStringLiteral(" -> ") + QString::number(exitCode));
    };

    void installLocal(const QString &script) { install(QStringLiteral("fuser"), script); }
    void installOnPath(const QString &script)
    {
        install(m_searchPath->filePath(QStringLiteral("fuser")), script);
    }
};

void tst_PortUsage::init()
{
    m_keptDirectory = QDir::currentPath();
    m_keptPath = qgetenv("PATH");
    m_workingDirectory.reset(new QTemporaryDir);
    m_searchPath.reset(new QTemporaryDir);
    QVERIFY(QDir::setCurrent(m_workingDirectory->path()));
    qputenv("PATH", m_searchPath->path().toLocal8Bit());
    m_reports.clear();
    s_warnings.clear();
    m_keptHandler = qInstallMessageHandler(noteWarning);
}

void tst_PortUsage::cleanup()
{
    qInstallMessageHandler(m_keptHandler);
    qputenv("PATH", m_keptPath);
    QDir::setCurrent(m_keptDirectory);
    QCOMPARE(s_warnings, QStringList());
}

void tst_PortUsage::onlyUsbSerialNamesQualify_data()
{
    QTest::addColumn<bool>("qualifies");
    QTest::newRow("ttyUSB0") << true;
    QTest::newRow("ttyUSB10") << true;
    QTest::newRow("ttyUSB") << true;
    QTest::newRow("ttyACM0") << true;
    QTest::newRow("ttyACMx") << true;
    QTest::newRow("ttyTool") << false;
    QTest::newRow("ttyS0") << false;
    QTest::newRow("ttyUS") << false;
    QTest::newRow("ttyusb0") << false;
    QTest::newRow("TTYUSB0") << false;
    QTest::newRow("ttyacm0") << false;
    QTest::newRow("xttyUSB0") << false;
    QTest::newRow("/dev/ttyUSB0") << false;
    QTest::newRow("") << false;
}

void tst_PortUsage::onlyUsbSerialNamesQualify()
{
    QFETCH(bool, qualifies);
    QCOMPARE(isUsbSerialPortName(QString::fromLatin1(QTest::currentDataTag())), qualifies);
}

void tst_PortUsage::exitCodesDecide_data()
{
    QTest::addColumn<QString>("local");
    QTest::addColumn<QString>("onPath");
    QTest::addColumn<bool>("isFree");
    QTest::addColumn<QStringList>("reports");

    const auto localOnly = [](int code) {
        return QStringList{QStringLiteral("./fuser /dev/ttyUSB0 -> %1").arg(code)};
    };
    const auto both = [&](int code, int codeOnPath) {
        return localOnly(code) +
               QStringList{QStringLiteral("fuser /dev/ttyUSB0 -> %1").arg(codeOnPath)};
    };
    QTest::newRow("no process has it open") << exitsWith1 << none << true << localOnly(1);
    QTest::newRow("a process has it open") << exitsWith0 << none << false << localOnly(0);
    QTest::newRow("any positive code is free") << exitsWith255 << none << true << localOnly(255);
    QTest::newRow("free, the other says busy") << exitsWith1 << exitsWith0 << true << localOnly(1);
    QTest::newRow("busy, the other says free") << exitsWith0 << exitsWith1 << false << localOnly(0);
    QTest::newRow("missing, free on the path") << none << exitsWith1 << true << both(-2, 1);
    QTest::newRow("missing, busy on the path") << none << exitsWith0 << false << both(-2, 0);
    QTest::newRow("missing, crashes on the path") << none << killsItself << false << both(-2, -1);
    QTest::newRow("missing everywhere") << none << none << false << both(-2, -2);
    QTest::newRow("crashes, free on the path") << killsItself << exitsWith1 << true << both(-1, 1);
    QTest::newRow("crashes, busy on the path") << killsItself << exitsWith0 << false << both(-1, 0);
    QTest::newRow("crashes, no other") << killsItself << none << false << both(-1, -2);
    QTest::newRow("crash of both") << killsItself << killsItself << false << both(-1, -1);
    QTest::newRow("no interpreter") << hasNoInterpreter << exitsWith1 << true << both(-2, 1);
}

void tst_PortUsage::exitCodesDecide()
{
    QFETCH(QString, local);
    QFETCH(QString, onPath);
    QFETCH(bool, isFree);
    QFETCH(QStringList, reports);
    installLocal(local);
    installOnPath(onPath);
    QCOMPARE(isPortFree(QStringLiteral("ttyUSB0"), m_report), isFree);
    QCOMPARE(m_reports, reports);
}

void tst_PortUsage::programThatMayNotBeExecutedFallsBack()
{
    install(QStringLiteral("fuser"), exitsWith0, false);
    installOnPath(exitsWith1);
    QVERIFY(isPortFree(QStringLiteral("ttyUSB0"), m_report));
    QCOMPARE(m_reports, QStringList({QStringLiteral("./fuser /dev/ttyUSB0 -> -2"),
                                     QStringLiteral("fuser /dev/ttyUSB0 -> 1")}));
}

void tst_PortUsage::directoryOfThatNameFallsBack()
{
    QVERIFY(QDir().mkdir(QStringLiteral("fuser")));
    installOnPath(exitsWith1);
    QVERIFY(isPortFree(QStringLiteral("ttyACM0"), m_report));
    QCOMPARE(m_reports, QStringList({QStringLiteral("./fuser /dev/ttyACM0 -> -2"),
                                     QStringLiteral("fuser /dev/ttyACM0 -> 1")}));
}

void tst_PortUsage::reportMayBeLeftOut()
{
    installLocal(killsItself);
    installOnPath(exitsWith1);
    QVERIFY(isPortFree(QStringLiteral("ttyUSB0")));
}

void tst_PortUsage::deviceIsTheOnlyArgument()
{
    installLocal(QStringLiteral("#!/bin/sh\necho \"$#:$1\" > arguments\nexit 1\n"));
    QVERIFY(isPortFree(QStringLiteral("ttyACM7"), m_report));
    QCOMPARE(contentOf(QStringLiteral("arguments")), QStringLiteral("1:/dev/ttyACM7\n"));
}

void tst_PortUsage::localProgramRunsInTheWorkingDirectory()
{
    installLocal(QStringLiteral("#!/bin/sh\npwd -P > where\nexit 1\n"));
    QVERIFY(isPortFree(QStringLiteral("ttyUSB0")));
    QCOMPARE(contentOf(QStringLiteral("where")),
             QDir(m_workingDirectory->path()).canonicalPath() + QLatin1Char('\n'));
}

void tst_PortUsage::outputIsDropped()
{
    const QString prints = QStringLiteral("#!/bin/sh\necho to-output\necho to-error >&2\n"
                                          ": > ran\nkill -9 $$\n");
    installLocal(prints);
    installOnPath(prints);
    QFile record(QStringLiteral("record"));
    QVERIFY(record.open(QIODevice::ReadWrite));
    std::fflush(stdout);
    std::fflush(stderr);
    const int keptOutput = ::dup(STDOUT_FILENO);
    const int keptError = ::dup(STDERR_FILENO);
    ::dup2(record.handle(), STDOUT_FILENO);
    ::dup2(record.handle(), STDERR_FILENO);
    const bool isFree = isPortFree(QStringLiteral("ttyUSB0"), m_report);
    ::dup2(keptOutput, STDOUT_FILENO);
    ::dup2(keptError, STDERR_FILENO);
    ::close(keptOutput);
    ::close(keptError);
    QVERIFY(!isFree);
    QVERIFY(QFile::exists(QStringLiteral("ran")));
    QCOMPARE(m_reports.size(), 2);
    QCOMPARE(contentOf(QStringLiteral("record")), QString());
}

void tst_PortUsage::inputIsEmpty()
{
    // The program could read this line if it had inherited the standard input.
    std::array<int, 2> pipeEnds{};
    QCOMPARE(::pipe(pipeEnds.data()), 0);
    QCOMPARE(::write(pipeEnds[1], "line\n", 5), 5);
    const int keptInput = ::dup(STDIN_FILENO);
    ::dup2(pipeEnds[0], STDIN_FILENO);
    installLocal(QStringLiteral("#!/bin/sh\nread line && exit 0\nexit 1\n"));
    const bool isFree = isPortFree(QStringLiteral("ttyUSB0"));
    ::dup2(keptInput, STDIN_FILENO);
    for (const int descriptor : {keptInput, pipeEnds[0], pipeEnds[1]})
        ::close(descriptor);
    QVERIFY(isFree);
}

void tst_PortUsage::noEventsRunMeanwhile()
{
    installLocal(QStringLiteral("#!/bin/sh\n/bin/sleep 0.2\nexit 1\n"));
    bool eventHandled = false;
    QTimer::singleShot(0, this, [&] { eventHandled = true; });
    QElapsedTimer clock;
    clock.start();
    QVERIFY(isPortFree(QStringLiteral("ttyUSB0")));
    QVERIFY(clock.elapsed() >= 190);
    QVERIFY(!eventHandled);
    QCoreApplication::processEvents();
    QVERIFY(eventHandled);
}

// Must be the last test: quitRequested() stays true in this process.
void tst_PortUsage::quitSignalKillsTheProgram()
{
    const QString runsLong = QStringLiteral("#!/bin/sh\nexec /bin/sleep 30\n");
    installLocal(runsLong);
    installOnPath(runsLong);
    quitOnSignals({SIGALRM});
    const itimerval inABit{{0, 0}, {0, 200000}};
    ::setitimer(ITIMER_REAL, &inABit, nullptr);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!isPortFree(QStringLiteral("ttyUSB0"), m_report));
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(m_reports.first(), QStringLiteral("./fuser /dev/ttyUSB0 -> -1"));
}

QTEST_GUILESS_MAIN(tst_PortUsage)
#include "tst_portusage.moc"
