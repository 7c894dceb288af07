#include "logsink.h"
#include "ptypair.h"

#include <QElapsedTimer>
#include <QMessageLogContext>
#include <QTest>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

namespace {

struct Ends
{
    int read;
    int write;
};

Ends pipeEnds()
{
    int ends[2] = {-1, -1};
    [[maybe_unused]] const int result = ::pipe2(ends, O_CLOEXEC);
    return {ends[0], ends[1]};
}

Ends terminalEnds()
{
    const PtyPair pair(PtyPair::Mode::Terminal);
    return {::fcntl(pair.lineEnd(), F_DUPFD_CLOEXEC, 0),
            ::fcntl(pair.portEnd(), F_DUPFD_CLOEXEC, 0)};
}

/// A sink and the end where its lines arrive.
class Log
{
public:
    explicit Log(const Ends &ends = pipeEnds())
        : m_ends(ends)
        , m_sink(ends.write)
    {
        ::fcntl(m_ends.read, F_SETFL, O_NONBLOCK);
    }

    ~Log()
    {
        ::close(m_ends.write);
        closeReadEnd();
    }

    Q_DISABLE_COPY_MOVE(Log)

    void write(const QByteArray &message)
    {
        m_sink.write(QtInfoMsg, QMessageLogContext(), message);
    }

    void writeTimes(int count, const QByteArray &message)
    {
        for (int i = 0; i < count; ++i)
            write(message);
    }

    /// Returns arrived bytes, at most 4 KiB.
    QByteArray takePiece() const
    {
        char bytes[4096];
        const auto count = ::read(m_ends.read, bytes, sizeof bytes);
        return {bytes, static_cast<int>(std::max<ssize_t>(count, 0))};
    }

    QByteArray takeAll() const
    {
        QByteArray all;
        for (QByteArray piece = takePiece(); !piece.isEmpty(); piece = takePiece())
            all += piece;
        return all;
    }

    void closeReadEnd()
    {
        if (m_ends.read >= 0)
            ::close(m_ends.read);
        m_ends.read = -1;
    }

private:
    Ends m_ends;
    LogSink m_sink;
};

const char *const withoutPlace = " ((null):0, (null))\n";

QByteArray infoLine(const QByteArray &message)
{
    return "Info: " + message + withoutPlace;
}

QByteArray lossLine(int lines)
{
    return "Warning: log lines lost because nobody read them: " + QByteArray::number(lines) +
           withoutPlace;
}

} // namespace

class tst_LogSink : public QObject
{
    Q_OBJECT

private slots:
    void unreadLongLineCostsLittleTimeAndIsCompletedLater_data();
    void unreadLongLineCostsLittleTimeAndIsCompletedLater();
    void longLineCostsASlowReaderNoMoreTimeThanAShortOne();
    void stoppedReaderCostsLinesAndLittleTime();
    void signalsDoNotProlongTheWaitForAStoppedReader();
    void unreadTerminalCostsLinesAndLittleTime();
    void slowReaderLosesNothing();
    void missingReaderCostsLittleTime();
};

void tst_LogSink::unreadLongLineCostsLittleTimeAndIsCompletedLater_data()
{
    QTest::addColumn<bool>("isTerminal");
    QTest::newRow("pipe") << false;
    QTest::newRow("terminal") << true;
}

void tst_LogSink::unreadLongLineCostsLittleTimeAndIsCompletedLater()
{
    QFETCH(bool, isTerminal);
    Log log(isTerminal ? terminalEnds() : pipeEnds());
    // A pipe and a terminal have room for less.
    const QByteArray message(300'000, 'x');
    QElapsedTimer clock;
    clock.start();
    log.write(message);
    log.writeTimes(10, message);
    log.writeTimes(990, "lost");
    QVERIFY2(clock.elapsed() < 5'000, qPrintable(QString::number(clock.elapsed())));

    QByteArray read = log.takeAll();
    QVERIFY(!read.contains('\n'));
    // Each call writes as much of the long line as fits. The last call also writes its own line.
    int lost = 999;
    while (!read.endsWith(infoLine("last")) && lost < 3'000) {
        ++lost;
        log.write("last");
        read += log.takeAll();
        read.replace("\r\n", "\n");
    }
    QCOMPARE(read, infoLine(message) + lossLine(lost) + infoLine("last"));
}

void tst_LogSink::longLineCostsASlowReaderNoMoreTimeThanAShortOne()
{
    Log log;
    std::atomic<bool> isOver{false};
    std::thread reader([&] {
        // Reads often enough that the sink never treats this reader as stopped.
        while (!isOver) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            log.takePiece();
        }
    });
    QElapsedTimer clock;
    clock.start();
    log.write(QByteArray(1'000'000, 'x'));
    const qint64 elapsed = clock.elapsed();
    isOver = true;
    reader.join();
    QVERIFY2(elapsed < 300, qPrintable(QString::number(elapsed)));
}

void tst_LogSink::stoppedReaderCostsLinesAndLittleTime()
{
    Log log;
    QElapsedTimer clock;
    clock.start();
    log.writeTimes(100'000, "text");
    QVERIFY2(clock.elapsed() < 5'000, qPrintable(QString::number(clock.elapsed())));

    const QByteArray before = log.takeAll();
    log.write("last");
    QCOMPARE(before, infoLine("text").repeated(before.count('\n')));
    QCOMPARE(log.takeAll(), lossLine(100'000 - before.count('\n')) + infoLine("last"));
}

void tst_LogSink::signalsDoNotProlongTheWaitForAStoppedReader()
{
    Log log;
    const auto before = ::signal(SIGALRM, [](int) {});
    const itimerval every2Ms{{0, 2000}, {0, 2000}};
    ::setitimer(ITIMER_REAL, &every2Ms, nullptr);
    QElapsedTimer clock;
    clock.start();
    log.writeTimes(10'000, "text");
    const qint64 elapsed = clock.elapsed();
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::signal(SIGALRM, before);
    QVERIFY2(elapsed < 5'000, qPrintable(QString::number(elapsed)));
}

void tst_LogSink::unreadTerminalCostsLinesAndLittleTime()
{
    Log log(terminalEnds());
    // With this length, the terminal takes only a part of the last line.
    const QByteArray message(997, 'x');
    QElapsedTimer clock;
    clock.start();
    log.writeTimes(1'000, message);
    QVERIFY2(clock.elapsed() < 5'000, qPrintable(QString::number(clock.elapsed())));
    QByteArray read = log.takeAll();
    QVERIFY(read.size() < 500 * infoLine(message).size());
    // The rest of the cut line comes first and may leave no room for the next line.
    for (int i = 0; i < 2; ++i) {
        log.write("last");
        read += log.takeAll();
    }
    read.replace("\r\n", "\n");
    const int complete = read.count(infoLine(message));
    QCOMPARE(read, infoLine(message).repeated(complete) + lossLine(1'000 - complete) +
                       infoLine("last").repeated(2));
}

void tst_LogSink::slowReaderLosesNothing()
{
    // If the machine pauses for 20 ms, the sink treats any reader as stopped.
    const auto isAnyLineLost = [] {
        Log log;
        std::atomic<bool> isOver{false};
        QByteArray read;
        std::thread reader([&] {
            while (!isOver) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                read += log.takeAll();
            }
        });
        log.writeTimes(3'000, QByteArray(100, 'x'));
        isOver = true;
        reader.join();
        read += log.takeAll();
        return read.count('\n') < 3'000 || read.contains("lost");
    };
    int attempts = 1;
    while (isAnyLineLost() && attempts < 5)
        ++attempts;
    QVERIFY(attempts < 5);
}

void tst_LogSink::missingReaderCostsLittleTime()
{
    Log log;
    log.closeReadEnd();
    const auto before = ::signal(SIGPIPE, SIG_IGN);
    QElapsedTimer clock;
    clock.start();
    log.writeTimes(10'000, "text");
    QVERIFY2(clock.elapsed() < 5'000, qPrintable(QString::number(clock.elapsed())));
    ::signal(SIGPIPE, before);
}

QTEST_APPLESS_MAIN(tst_LogSink)
#include "tst_logsink.moc"
