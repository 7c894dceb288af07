#include "loghandler.h"

#include <QDebug>
#include <QTemporaryFile>
#include <QTest>
#include <QTextCodec>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Records the text that goes to a standard stream while it exists.
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

} // namespace

class tst_LogHandler : public QObject
{
    Q_OBJECT

private slots:
    void eachSeverityHasItsForm_data();
    void eachSeverityHasItsForm();
    void nothingGoesToStandardOutput();
    void unknownSeverityPrintsNothing_data();
    void unknownSeverityPrintsNothing();
    void formatCharactersOfTheMessageArePrintedUnchanged();
    void streamedItemsAreSeparatedByOneBlank();
    void messageIsPrintedInTheLocalEncoding();
    void messageOfAnyLengthIsPrintedWhole_data();
    void messageOfAnyLengthIsPrintedWhole();
    void nextMessageReportsTheOnesThatWereLost();
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

void tst_LogHandler::formatCharactersOfTheMessageArePrintedUnchanged()
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

void tst_LogHandler::nextMessageReportsTheOnesThatWereLost()
{
    int ends[2] = {-1, -1};
    QCOMPARE(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const QByteArray filling(1 << 20, 'x');
    const ssize_t filled = ::write(ends[1], filling.constData(), std::size_t(filling.size()));
    const int kept = ::dup(STDERR_FILENO);
    ::dup2(ends[1], STDERR_FILENO);
    myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("lost"));
    myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("lost"));
    QByteArray read(filling.size(), '\0');
    const ssize_t drained = ::read(ends[0], read.data(), std::size_t(read.size()));
    myMessageOutput(QtInfoMsg, QMessageLogContext(), QStringLiteral("last"));
    read.truncate(int(::read(ends[0], read.data(), std::size_t(read.size()))));
    ::dup2(kept, STDERR_FILENO);
    for (const int descriptor : {kept, ends[0], ends[1]})
        ::close(descriptor);
    QCOMPARE(drained, filled);
    QCOMPARE(read, "Warning: log lines lost because nobody read them: 2" +
                       QByteArray(withoutPlace) + "Info: last" + withoutPlace);
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
