#include "loghandler.h"

#include <QDebug>
#include <QElapsedTimer>
#include <QTemporaryFile>
#include <QTest>
#include <QTextCodec>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

// What a standard stream received while `action` ran.
class StreamRecord
{
public:
    explicit StreamRecord(std::FILE *stream)
        : m_stream(stream)
        , m_kept(::dup(::fileno(stream)))
    {
        m_file.open();
        std::fflush(stream);
        ::dup2(m_file.handle(), ::fileno(stream));
    }

    QByteArray take()
    {
        std::fflush(m_stream);
        ::dup2(m_kept, ::fileno(m_stream));
        ::close(m_kept);
        m_file.seek(0);
        return m_file.readAll();
    }

private:
    std::FILE *m_stream;
    int m_kept;
    QTemporaryFile m_file;
};

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

// As an ordinary terminal is: it makes "\r\n" of a line's end.
Ends terminalEnds()
{
    const int ends = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    ::grantpt(ends);
    ::unlockpt(ends);
    return {ends, ::open(::ptsname(ends), O_RDWR | O_NOCTTY | O_CLOEXEC)};
}

// Standard error can be read here as long as this exists.
class StandardErrorReader
{
public:
    explicit StandardErrorReader(const Ends &ends = pipeEnds())
        : m_kept(::dup(STDERR_FILENO))
        , m_ends{ends.read, ends.write}
    {
        ::fcntl(m_ends[0], F_SETFL, O_NONBLOCK);
        ::dup2(m_ends[1], STDERR_FILENO);
    }

    ~StandardErrorReader()
    {
        ::dup2(m_kept, STDERR_FILENO);
        ::close(m_kept);
        ::close(m_ends[1]);
        closeReadEnd();
    }

    Q_DISABLE_COPY_MOVE(StandardErrorReader)

    // 4 KiB at most.
    QByteArray takePiece() const
    {
        char bytes[4096];
        const auto count = ::read(m_ends[0], bytes, sizeof bytes);
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
        if (m_ends[0] >= 0)
            ::close(m_ends[0]);
        m_ends[0] = -1;
    }

private:
    int m_kept;
    int m_ends[2];
};

struct Printed
{
    QByteArray toStandardOutput;
    QByteArray toStandardError;
};

Printed printedBy(const std::function<void()> &action)
{
    StreamRecord standardOutput(stdout);
    StreamRecord standardError(stderr);
    action();
    const QByteArray errors = standardError.take();
    return {standardOutput.take(), errors};
}

QByteArray lineOf(QtMsgType type, const QString &message)
{
    return printedBy([&] { myMessageOutput(type, QMessageLogContext(), message); }).toStandardError;
}

QByteArray infoLine(const QString &message)
{
    return lineOf(QtInfoMsg, message);
}

const char *const withoutPlace = " ((null):0, (null))\n";

// The handler may still have a part of a line to write, and lost lines to report.
void drain(const StandardErrorReader &log)
{
    QByteArray read;
    do {
        myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("in between"));
        read = log.takeAll().replace("\r\n", "\n");
    } while (!read.endsWith("Info: in between" + QByteArray(withoutPlace)));
}

} // namespace

class tst_LogHandler : public QObject
{
    Q_OBJECT

private slots:
    void eachSeverityHasItsForm_data();
    void eachSeverityHasItsForm();
    void nothingGoesToStandardOutput();
    void missingPlaceIsPrintedAsNull_data();
    void missingPlaceIsPrintedAsNull();
    void unknownSeverityPrintsNothing_data();
    void unknownSeverityPrintsNothing();
    void formatCharactersOfTheMessageArePrintedAsTheyAre();
    void streamedItemsAreSeparatedByOneBlank();
    void messageIsPrintedInTheLocalEncoding();
    void messageOfAnyLengthIsPrintedWhole_data();
    void messageOfAnyLengthIsPrintedWhole();
    void longLineThatNobodyReadsCostsNoTimeAndIsCompletedLater_data();
    void longLineThatNobodyReadsCostsNoTimeAndIsCompletedLater();
    void longLineCostsASlowReaderNoMoreTimeThanAShortOne();
    void readerThatHasStoppedCostsLinesButNoTime();
    void signalDoesNotMakeItWaitForAReaderThatHasStopped();
    void terminalThatNobodyReadsCostsLinesButNoTime();
    void readerThatIsSlowLosesNothing();
    void readerThatIsGoneCostsNoTime();
    void fatalMessageIsPrintedAndAborts();
};

void tst_LogHandler::eachSeverityHasItsForm_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("debug") << int(QtDebugMsg) << QByteArray("Debug: text (file.cpp:42, run)\n");
    QTest::newRow("info") << int(QtInfoMsg) << QByteArray("Info: text (file.cpp:42, run)\n");
    QTest::newRow("warning") << int(QtWarningMsg)
                             << QByteArray("Warning: text (file.cpp:42, run)\n");
    QTest::newRow("critical") << int(QtCriticalMsg)
                              << QByteArray("Critical: text (file.cpp:42, run)\n");
}

void tst_LogHandler::eachSeverityHasItsForm()
{
    QFETCH(int, type);
    QFETCH(QByteArray, line);
    const QMessageLogContext place("file.cpp", 42, "run", "default");
    const Printed printed = printedBy(
        [&] { myMessageOutput(static_cast<QtMsgType>(type), place, QStringLiteral("text")); });
    QCOMPARE(printed.toStandardError, line);
}

void tst_LogHandler::nothingGoesToStandardOutput()
{
    const Printed printed = printedBy([] {
        for (const QtMsgType type : {QtDebugMsg, QtInfoMsg, QtWarningMsg, QtCriticalMsg})
            myMessageOutput(type, QMessageLogContext(), QStringLiteral("text"));
    });
    QCOMPARE(printed.toStandardOutput, QByteArray());
    QCOMPARE(printed.toStandardError.count('\n'), 4);
}

void tst_LogHandler::missingPlaceIsPrintedAsNull_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("start");
    QTest::newRow("debug") << int(QtDebugMsg) << QByteArray("Debug: text");
    QTest::newRow("info") << int(QtInfoMsg) << QByteArray("Info: text");
    QTest::newRow("warning") << int(QtWarningMsg) << QByteArray("Warning: text");
    QTest::newRow("critical") << int(QtCriticalMsg) << QByteArray("Critical: text");
}

void tst_LogHandler::missingPlaceIsPrintedAsNull()
{
    QFETCH(int, type);
    QFETCH(QByteArray, start);
    QCOMPARE(lineOf(static_cast<QtMsgType>(type), QStringLiteral("text")), start + withoutPlace);
}

void tst_LogHandler::unknownSeverityPrintsNothing_data()
{
    QTest::addColumn<int>("type");
    QTest::newRow("one after the last") << 5;
    QTest::newRow("the highest") << 7;
}

void tst_LogHandler::unknownSeverityPrintsNothing()
{
    QFETCH(int, type);
    const Printed printed = printedBy([&] {
        myMessageOutput(static_cast<QtMsgType>(type), QMessageLogContext(), QStringLiteral("text"));
    });
    QCOMPARE(printed.toStandardError, QByteArray());
    QCOMPARE(printed.toStandardOutput, QByteArray());
}

void tst_LogHandler::formatCharactersOfTheMessageArePrintedAsTheyAre()
{
    QCOMPARE(infoLine(QStringLiteral("100 %s %n %d %%")),
             QByteArray("Info: 100 %s %n %d %%") + withoutPlace);
}

void tst_LogHandler::streamedItemsAreSeparatedByOneBlank()
{
    const Printed printed = printedBy([] {
        const QtMessageHandler kept = qInstallMessageHandler(myMessageOutput);
        qInfo() << "Connected serial port :" << QStringLiteral("ttyTool") << 9;
        qWarning() << QList<int>{2, 9};
        qInstallMessageHandler(kept);
    });
    QCOMPARE(printed.toStandardError,
             QByteArray("Info: Connected serial port : \"ttyTool\" 9 ((null):0, (null))\n"
                        "Warning: (2, 9) ((null):0, (null))\n"));
}

void tst_LogHandler::messageIsPrintedInTheLocalEncoding()
{
    QTextCodec *kept = QTextCodec::codecForLocale();
    const QString message = QString(QChar(0xE9));
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("ISO-8859-1"));
    const QByteArray latin1 = infoLine(message);
    QTextCodec::setCodecForLocale(QTextCodec::codecForName("UTF-8"));
    const QByteArray utf8 = infoLine(message);
    QTextCodec::setCodecForLocale(kept);
    QCOMPARE(latin1, QByteArray("Info: \xE9") + withoutPlace);
    QCOMPARE(utf8, QByteArray("Info: \xC3\xA9") + withoutPlace);
}

void tst_LogHandler::messageOfAnyLengthIsPrintedWhole_data()
{
    QTest::addColumn<int>("length");
    for (const int length : {0, 1'000, 1'001, 4'095, 4'096, 4'097, 160'000, 3'000'000})
        QTest::addRow("%d", length) << length;
}

void tst_LogHandler::messageOfAnyLengthIsPrintedWhole()
{
    QFETCH(int, length);
    QCOMPARE(infoLine(QString(length, QLatin1Char('x'))),
             "Info: " + QByteArray(length, 'x') + withoutPlace);
}

void tst_LogHandler::longLineThatNobodyReadsCostsNoTimeAndIsCompletedLater_data()
{
    QTest::addColumn<bool>("isTerminal");
    QTest::newRow("pipe") << false;
    QTest::newRow("terminal") << true;
}

void tst_LogHandler::longLineThatNobodyReadsCostsNoTimeAndIsCompletedLater()
{
    QFETCH(bool, isTerminal);
    const StandardErrorReader log(isTerminal ? terminalEnds() : pipeEnds());
    drain(log);
    // Longer than what pipe and terminal take.
    const QString message(300'000, QLatin1Char('x'));
    QElapsedTimer clock;
    clock.start();
    myMessageOutput(QtInfoMsg, QMessageLogContext(), message);
    for (int i = 0; i < 1'000; ++i)
        myMessageOutput(QtInfoMsg, QMessageLogContext(), i < 10 ? message : QStringLiteral("lost"));
    QVERIFY2(clock.elapsed() < 5'000, qPrintable(QString::number(clock.elapsed())));

    QByteArray read = log.takeAll();
    QVERIFY(!read.contains('\n'));
    // Each call completes as much of the line as there is room for; the last one has room for
    // itself.
    const QByteArray last = "Info: last" + QByteArray(withoutPlace);
    int lost = 999;
    while (!read.endsWith(last) && lost < 3'000) {
        ++lost;
        myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("last"));
        read += log.takeAll();
        read.replace("\r\n", "\n");
    }
    QCOMPARE(read, "Info: " + message.toLatin1() + withoutPlace +
                       "Warning: log lines lost because nobody read them: " +
                       QByteArray::number(lost) + withoutPlace + last);
}

void tst_LogHandler::longLineCostsASlowReaderNoMoreTimeThanAShortOne()
{
    const StandardErrorReader log;
    drain(log);
    std::atomic<bool> isOver{false};
    std::thread reader([&] {
        // Makes room for 4 KiB again and again, always in time to count as not stopped.
        while (!isOver) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            log.takePiece();
        }
    });
    QElapsedTimer clock;
    clock.start();
    myMessageOutput(QtInfoMsg, QMessageLogContext(), QString(1'000'000, QLatin1Char('x')));
    const qint64 elapsed = clock.elapsed();
    isOver = true;
    reader.join();
    QVERIFY2(elapsed < 300, qPrintable(QString::number(elapsed)));
    drain(log);
}

void tst_LogHandler::readerThatHasStoppedCostsLinesButNoTime()
{
    const StandardErrorReader log;
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 100'000; ++i)
        myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("text"));
    QVERIFY2(clock.elapsed() < 5'000, qPrintable(QString::number(clock.elapsed())));

    const QByteArray before = log.takeAll();
    myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("last"));
    const QByteArray line = QByteArray("Info: text") + withoutPlace;
    QCOMPARE(before, line.repeated(before.count('\n')));
    QCOMPARE(log.takeAll(), "Warning: log lines lost because nobody read them: " +
                                QByteArray::number(100'000 - before.count('\n')) + withoutPlace +
                                "Info: last" + withoutPlace);
}

void tst_LogHandler::signalDoesNotMakeItWaitForAReaderThatHasStopped()
{
    const StandardErrorReader log;
    const auto before = ::signal(SIGALRM, [](int) {});
    const itimerval every2Ms{{0, 2000}, {0, 2000}};
    ::setitimer(ITIMER_REAL, &every2Ms, nullptr);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 10'000; ++i)
        myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("text"));
    const qint64 elapsed = clock.elapsed();
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &never, nullptr);
    ::signal(SIGALRM, before);
    QVERIFY2(elapsed < 5'000, qPrintable(QString::number(elapsed)));
}

void tst_LogHandler::terminalThatNobodyReadsCostsLinesButNoTime()
{
    const StandardErrorReader log(terminalEnds());
    // Takes along what the tests before have lost.
    myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("first"));
    log.takeAll();
    // Of a length that leaves a part of the last one for later.
    const QString message(997, QLatin1Char('x'));
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 1'000; ++i)
        myMessageOutput(QtInfoMsg, QMessageLogContext(), message);
    QVERIFY(clock.elapsed() < 5'000);
    const QByteArray line = "Info: " + message.toLatin1() + withoutPlace;
    QByteArray read = log.takeAll();
    QVERIFY(read.size() < 500 * line.size());
    // Twice: the rest of the line that was cut comes first, and may leave no room for more.
    for (int i = 0; i < 2; ++i) {
        myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("last"));
        read += log.takeAll();
    }
    read.replace("\r\n", "\n");
    const int complete = read.count(line);
    QCOMPARE(read, line.repeated(complete) + "Warning: log lines lost because nobody read them: " +
                       QByteArray::number(1'000 - complete) + withoutPlace +
                       ("Info: last" + QByteArray(withoutPlace)).repeated(2));
}

void tst_LogHandler::readerThatIsSlowLosesNothing()
{
    // A machine that stands still for 20 ms makes a reader that has stopped of any reader.
    const auto isAnyLineLost = [] {
        const StandardErrorReader log;
        std::atomic<bool> isOver{false};
        QByteArray read;
        std::thread reader([&] {
            while (!isOver) {
                std::this_thread::sleep_for(std::chrono::milliseconds(2));
                read += log.takeAll();
            }
        });
        for (int i = 0; i < 3000; ++i)
            myMessageOutput(QtInfoMsg, QMessageLogContext(), QString(100, QLatin1Char('x')));
        isOver = true;
        reader.join();
        read += log.takeAll();
        return read.count('\n') < 3000 || read.contains("lost");
    };
    int attempts = 1;
    while (isAnyLineLost() && attempts < 5)
        ++attempts;
    QVERIFY(attempts < 5);
}

void tst_LogHandler::readerThatIsGoneCostsNoTime()
{
    StandardErrorReader log;
    log.closeReadEnd();
    const auto before = ::signal(SIGPIPE, SIG_IGN);
    QElapsedTimer clock;
    clock.start();
    for (int i = 0; i < 10'000; ++i)
        myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("text"));
    QVERIFY(clock.elapsed() < 5'000);
    ::signal(SIGPIPE, before);
}

void tst_LogHandler::fatalMessageIsPrintedAndAborts()
{
    int status = 0;
    const Printed printed = printedBy([&] {
        const pid_t child = ::fork();
        if (child == 0) {
            const rlimit noCoreFile{};
            ::setrlimit(RLIMIT_CORE, &noCoreFile);
            ::signal(SIGABRT, SIG_DFL);
            myMessageOutput(QtFatalMsg, QMessageLogContext("file.cpp", 42, "run", "default"),
                            QStringLiteral("text"));
            ::_exit(0);
        }
        ::waitpid(child, &status, 0);
    });
    QCOMPARE(printed.toStandardError, QByteArray("Fatal: text (file.cpp:42, run)\n"));
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGABRT);
}

QTEST_APPLESS_MAIN(tst_LogHandler)
#include "tst_loghandler.moc"
