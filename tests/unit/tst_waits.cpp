#include "waits.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>
#include <QTest>
#include <QTimer>

#include <algorithm>

namespace {

class Sender : public QObject
{
    Q_OBJECT

signals:
    void happened();
};

constexpr int longWaitMs = 20000;
constexpr int promptMs = 1000; // "at once" on a busy machine

// The shortest of three tries: a busy machine only makes a wait longer.
template <typename Wait>
qint64 shortestMs(Wait wait)
{
    qint64 shortest = longWaitMs;
    for (int attempt = 0; attempt < 3; ++attempt) {
        QElapsedTimer clock;
        clock.start();
        wait();
        shortest = std::min(shortest, clock.elapsed());
    }
    return shortest;
}

// Runs `body` inside the application's event loop. `body` must let the loop end.
template <typename Body>
int runInApplicationLoop(Body body)
{
    QTimer::singleShot(0, QCoreApplication::instance(), body);
    return QCoreApplication::exec();
}

} // namespace

class tst_Waits : public QObject
{
    Q_OBJECT

private slots:
    void pauseLastsAboutItsTime_data();
    void pauseLastsAboutItsTime();
    void timersRunDuringAPause();
    void zeroPauseRunsTheEventLoopOnce();
    void innerPauseEndsOnlyItself();
    void outerPauseWaitsForALongerInnerOne();
    void quitEndsAPauseAtOnce();
    void pauseAfterQuitEndsAtOnce();

    void waitThatGetsItsSignalReturnsFalseAtOnce();
    void waitWithoutItsSignalReturnsTrueAfterTheTimeout();
    void waitWithoutLimitEndsOnlyWithTheSignal_data();
    void waitWithoutLimitEndsOnlyWithTheSignal();
    void signalBeforeTheWaitDoesNotCount();
    void signalInsideAnInnerWaitEndsBoth();
    void innerTimeoutLeavesTheOuterWaitPending();
    void quitEndsAWaitAsIfTheSignalHadCome();
};

void tst_Waits::pauseLastsAboutItsTime_data()
{
    QTest::addColumn<int>("ms");
    QTest::newRow("a polling step") << 10;
    QTest::newRow("a read-back") << 50;
    QTest::newRow("a change of the rate") << 200;
}

void tst_Waits::pauseLastsAboutItsTime()
{
    QFETCH(int, ms);
    const qint64 elapsed = shortestMs([ms] { qSleepWhileProcessingEvents(ms); });
    // Coarse timers may differ by 5 %.
    QVERIFY2(elapsed >= ms * 95 / 100 - 1, qPrintable(QString::number(elapsed)));
    QVERIFY2(elapsed < ms * 105 / 100 + 20, qPrintable(QString::number(elapsed)));
}

void tst_Waits::timersRunDuringAPause()
{
    // Timers fire in the order in which they are due, so all of these fire before the end of the
    // pause, also on a slow machine.
    QList<int> fired;
    QList<int> due;
    QObject context;
    for (int ms = 0; ms < 200; ms += 10) {
        due.append(ms);
        QTimer::singleShot(ms, Qt::PreciseTimer, &context, [&fired, ms] { fired.append(ms); });
    }
    qSleepWhileProcessingEvents(200);
    QCOMPARE(fired, due);
}

void tst_Waits::zeroPauseRunsTheEventLoopOnce()
{
    int passes = 0;
    QTimer everyPass;
    connect(&everyPass, &QTimer::timeout, this, [&] { ++passes; });
    everyPass.start(0);
    int posted = 0;
    QMetaObject::invokeMethod(
        this, [&] { ++posted; }, Qt::QueuedConnection);

    QElapsedTimer clock;
    clock.start();
    qSleepWhileProcessingEvents(0);
    QCOMPARE(posted, 1);
    QCOMPARE(passes, 1);
    QVERIFY(clock.elapsed() < promptMs);
}

void tst_Waits::innerPauseEndsOnlyItself()
{
    QStringList order;
    QTimer::singleShot(20, this, [&] {
        qSleepWhileProcessingEvents(30);
        order += QStringLiteral("inner");
    });
    QElapsedTimer clock;
    clock.start();
    qSleepWhileProcessingEvents(200);
    order += QStringLiteral("outer");
    QCOMPARE(order, QStringList({QStringLiteral("inner"), QStringLiteral("outer")}));
    QVERIFY2(clock.elapsed() >= 185, qPrintable(QString::number(clock.elapsed())));
}

void tst_Waits::outerPauseWaitsForALongerInnerOne()
{
    QStringList order;
    QTimer::singleShot(0, this, [&] {
        qSleepWhileProcessingEvents(150);
        order += QStringLiteral("inner");
    });
    qSleepWhileProcessingEvents(30);
    order += QStringLiteral("outer");
    QCOMPARE(order, QStringList({QStringLiteral("inner"), QStringLiteral("outer")}));
}

void tst_Waits::quitEndsAPauseAtOnce()
{
    qint64 pausedMs = -1;
    const int exitCode = runInApplicationLoop([&] {
        QTimer::singleShot(20, QCoreApplication::instance(), &QCoreApplication::quit);
        QElapsedTimer clock;
        clock.start();
        qSleepWhileProcessingEvents(longWaitMs);
        pausedMs = clock.elapsed();
    });
    QCOMPARE(exitCode, 0);
    QVERIFY(pausedMs >= 0 && pausedMs < promptMs);
}

void tst_Waits::pauseAfterQuitEndsAtOnce()
{
    qint64 pausedMs = -1;
    runInApplicationLoop([&] {
        QCoreApplication::quit();
        QElapsedTimer clock;
        clock.start();
        for (int i = 0; i < 100; ++i)
            qSleepWhileProcessingEvents(longWaitMs);
        pausedMs = clock.elapsed();
    });
    QVERIFY(pausedMs >= 0 && pausedMs < promptMs);
}

void tst_Waits::waitThatGetsItsSignalReturnsFalseAtOnce()
{
    Sender sender;
    QTimer::singleShot(20, &sender, &Sender::happened);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), longWaitMs));
    QVERIFY(clock.elapsed() >= 15 && clock.elapsed() < promptMs);
}

void tst_Waits::waitWithoutItsSignalReturnsTrueAfterTheTimeout()
{
    const Sender sender;
    bool timedOut = true;
    const qint64 elapsed = shortestMs([&] {
        timedOut = timedOut && qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), 100);
    });
    QVERIFY(timedOut);
    QVERIFY2(elapsed >= 94 && elapsed < 125, qPrintable(QString::number(elapsed)));
}

void tst_Waits::waitWithoutLimitEndsOnlyWithTheSignal_data()
{
    QTest::addColumn<int>("timeoutMs");
    QTest::newRow("zero") << 0;
    QTest::newRow("minus one") << -1;
    QTest::newRow("minus a thousand") << -1000;
}

void tst_Waits::waitWithoutLimitEndsOnlyWithTheSignal()
{
    QFETCH(int, timeoutMs);
    Sender sender;
    QTimer::singleShot(150, Qt::PreciseTimer, &sender, &Sender::happened);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), timeoutMs));
    QVERIFY2(clock.elapsed() >= 149, qPrintable(QString::number(clock.elapsed())));
}

void tst_Waits::signalBeforeTheWaitDoesNotCount()
{
    Sender sender;
    emit sender.happened();
    QVERIFY(qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), 30));
}

void tst_Waits::signalInsideAnInnerWaitEndsBoth()
{
    Sender sender;
    bool innerTimedOut = true;
    QTimer::singleShot(0, this, [&] {
        QTimer::singleShot(20, &sender, &Sender::happened);
        innerTimedOut = qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), longWaitMs);
    });
    QVERIFY(!qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), longWaitMs));
    QVERIFY(!innerTimedOut);
}

void tst_Waits::innerTimeoutLeavesTheOuterWaitPending()
{
    Sender sender;
    bool innerTimedOut = false;
    QTimer::singleShot(0, this, [&] {
        innerTimedOut = qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), 20);
        QTimer::singleShot(20, &sender, &Sender::happened);
    });
    QVERIFY(!qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), longWaitMs));
    QVERIFY(innerTimedOut);
}

void tst_Waits::quitEndsAWaitAsIfTheSignalHadCome()
{
    const Sender sender;
    bool timedOut = true;
    runInApplicationLoop([&] {
        QTimer::singleShot(20, QCoreApplication::instance(), &QCoreApplication::quit);
        timedOut = qWaitForSignalWhileProcessingEvents(sender, SIGNAL(happened()), longWaitMs);
    });
    QVERIFY(!timedOut);
}

QTEST_GUILESS_MAIN(tst_Waits)
#include "tst_waits.moc"
