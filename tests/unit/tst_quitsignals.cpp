#include "quitsignals.h"

#include "waits.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <functional>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int longWaitMs = 20000;
constexpr int wrongExitCode = 97;   // the claim is false
constexpr int unknownExitCode = 98; // the scenario does not exist

const QVector<int> quitSignals{SIGQUIT, SIGINT, SIGTERM, SIGHUP};

// quitRequested() stays true for the life of a process, so each scenario runs in its own process.
// Its exit code is the result.
using Scenario = std::function<int(int signalNumber)>;

int quitFromTheLoop(int signalNumber)
{
    quitOnSignals(quitSignals);
    QTimer::singleShot(0, QCoreApplication::instance(), [=] { std::raise(signalNumber); });
    return QCoreApplication::exec();
}

int quitBeforeTheLoop(int signalNumber)
{
    quitOnSignals(quitSignals);
    std::raise(signalNumber);
    return QCoreApplication::exec();
}

int quitFromAnIdleLoopByAnotherThread(int signalNumber)
{
    quitOnSignals(quitSignals);
    const pthread_t mainThread = ::pthread_self();
    std::thread sender([=] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        ::pthread_kill(mainThread, signalNumber);
    });
    const int exitCode = QCoreApplication::exec();
    sender.join();
    return exitCode;
}

int quitHandledByAnotherThread(int signalNumber)
{
    quitOnSignals(quitSignals);
    std::thread sender([=] { std::raise(signalNumber); });
    const int exitCode = QCoreApplication::exec();
    sender.join();
    return exitCode;
}

int quitDuringNestedWaits(int signalNumber)
{
    quitOnSignals(quitSignals);
    QTimer::singleShot(0, QCoreApplication::instance(), [=] {
        QTimer::singleShot(0, QCoreApplication::instance(), [=] {
            QTimer::singleShot(0, QCoreApplication::instance(), [=] { std::raise(signalNumber); });
            qSleepWhileProcessingEvents(longWaitMs);
        });
        qSleepWhileProcessingEvents(longWaitMs);
    });
    return QCoreApplication::exec();
}

int requestQuitWithoutALoop(int signalNumber)
{
    quitOnSignals(quitSignals);
    const bool before = quitRequested();
    std::raise(signalNumber);
    return !before && quitRequested() ? 0 : wrongExitCode;
}

int quitOnManySignals(int signalNumber)
{
    quitOnSignals(quitSignals);
    QTimer::singleShot(0, QCoreApplication::instance(), [=] {
        for (int i = 0; i < 1000; ++i)
            std::raise(signalNumber);
    });
    return QCoreApplication::exec();
}

int quitOnASignalAddedLater(int signalNumber)
{
    quitOnSignals({SIGUSR2});
    quitOnSignals({signalNumber});
    QTimer::singleShot(0, QCoreApplication::instance(), [=] { std::raise(signalNumber); });
    return QCoreApplication::exec();
}

int quitOnASignalOfTheFirstCall(int signalNumber)
{
    quitOnSignals({signalNumber});
    quitOnSignals({SIGUSR2});
    QTimer::singleShot(0, QCoreApplication::instance(), [=] { std::raise(signalNumber); });
    return QCoreApplication::exec();
}

int raiseAnUnregisteredSignal(int signalNumber)
{
    quitOnSignals({});
    std::raise(signalNumber);
    return wrongExitCode;
}

int finishOuterWorkAfterTheWait(int signalNumber)
{
    quitOnSignals(quitSignals);
    bool workFinished = false;
    QTimer::singleShot(0, QCoreApplication::instance(), [&] {
        QTimer::singleShot(0, QCoreApplication::instance(), [=] { std::raise(signalNumber); });
        qSleepWhileProcessingEvents(longWaitMs);
        workFinished = true;
    });
    const int exitCode = QCoreApplication::exec();
    return exitCode == 0 && workFinished ? 0 : wrongExitCode;
}

const QMap<QString, Scenario> &scenarios()
{
    static const QMap<QString, Scenario> all{
        {QStringLiteral("from the loop"), quitFromTheLoop},
        {QStringLiteral("before the loop"), quitBeforeTheLoop},
        {QStringLiteral("to an idle loop"), quitFromAnIdleLoopByAnotherThread},
        {QStringLiteral("in another thread"), quitHandledByAnotherThread},
        {QStringLiteral("during nested waits"), quitDuringNestedWaits},
        {QStringLiteral("without a loop"), requestQuitWithoutALoop},
        {QStringLiteral("a thousand times"), quitOnManySignals},
        {QStringLiteral("added later"), quitOnASignalAddedLater},
        {QStringLiteral("of the first call"), quitOnASignalOfTheFirstCall},
        {QStringLiteral("not registered"), raiseAnUnregisteredSignal},
        {QStringLiteral("with work after the wait"), finishOuterWorkAfterTheWait},
    };
    return all;
}

} // namespace

class tst_QuitSignals : public QObject
{
    Q_OBJECT

private slots:
    void eachQuitSignalEndsTheLoopWithZero_data();
    void eachQuitSignalEndsTheLoopWithZero();
    void quitSignalIsNotMissed_data();
    void quitSignalIsNotMissed();
    void otherSignalsKeepTheirEffect_data();
    void otherSignalsKeepTheirEffect();
    void noQuitIsRequestedWithoutASignal();
};

namespace {

struct Outcome
{
    QProcess::ExitStatus status;
    int code;
    qint64 elapsedMs;
};

// The code of a crashed process is the number of the signal.
Outcome run(const QString &scenario, int signalNumber)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    QElapsedTimer clock;
    clock.start();
    process.start(QCoreApplication::applicationFilePath(),
                  {QStringLiteral("--scenario"), scenario, QString::number(signalNumber)});
    process.waitForFinished(longWaitMs / 4);
    const Outcome outcome{process.exitStatus(), process.exitCode(), clock.elapsed()};
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
        return {QProcess::NormalExit, wrongExitCode, clock.elapsed()};
    }
    return outcome;
}

} // namespace

void tst_QuitSignals::eachQuitSignalEndsTheLoopWithZero_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGQUIT") << 3;
    QTest::newRow("SIGINT") << 2;
    QTest::newRow("SIGTERM") << 15;
    QTest::newRow("SIGHUP") << 1;
}

void tst_QuitSignals::eachQuitSignalEndsTheLoopWithZero()
{
    QFETCH(int, signalNumber);
    const Outcome outcome = run(QStringLiteral("from the loop"), signalNumber);
    QCOMPARE(outcome.status, QProcess::NormalExit);
    QCOMPARE(outcome.code, 0);
}

void tst_QuitSignals::quitSignalIsNotMissed_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("before the loop") << SIGTERM;
    QTest::newRow("to an idle loop") << SIGTERM;
    QTest::newRow("in another thread") << SIGTERM;
    QTest::newRow("during nested waits") << SIGTERM;
    QTest::newRow("without a loop") << SIGTERM;
    QTest::newRow("a thousand times") << SIGTERM;
    QTest::newRow("added later") << SIGTERM;
    QTest::newRow("of the first call") << SIGTERM;
    QTest::newRow("with work after the wait") << SIGTERM;
}

void tst_QuitSignals::quitSignalIsNotMissed()
{
    QFETCH(int, signalNumber);
    const Outcome outcome = run(QString::fromLatin1(QTest::currentDataTag()), signalNumber);
    QCOMPARE(outcome.status, QProcess::NormalExit);
    QCOMPARE(outcome.code, 0);
    QVERIFY2(outcome.elapsedMs < 5000, qPrintable(QString::number(outcome.elapsedMs)));
}

void tst_QuitSignals::otherSignalsKeepTheirEffect_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::newRow("SIGUSR1") << SIGUSR1;
    QTest::newRow("SIGTERM") << SIGTERM;
}

void tst_QuitSignals::otherSignalsKeepTheirEffect()
{
    QFETCH(int, signalNumber);
    const Outcome outcome = run(QStringLiteral("not registered"), signalNumber);
    QCOMPARE(outcome.status, QProcess::CrashExit);
    QCOMPARE(outcome.code, signalNumber);
}

void tst_QuitSignals::noQuitIsRequestedWithoutASignal()
{
    QVERIFY(!quitRequested());
    quitOnSignals({SIGUSR2});
    qSleepWhileProcessingEvents(20);
    QVERIFY(!quitRequested());
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == QLatin1String("--scenario")) {
        ::alarm(longWaitMs / 1000); // ends the process if it hangs
        const Scenario scenario = scenarios().value(arguments.value(2));
        return scenario ? scenario(arguments.value(3).toInt()) : unknownExitCode;
    }
    tst_QuitSignals test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_quitsignals.moc"
