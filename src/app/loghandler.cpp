#include "loghandler.h"

#include <QString>

#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <unistd.h>

namespace {

// One bad client must not fill the disk with a single line.
constexpr int maxMessageLength = 1000;
// Enough for a reader that is slow, and little for those who wait for the daemon meanwhile.
constexpr int slowReaderWaitMs = 20;

const char *formatOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "Debug: %s (%s:%u, %s)\n";
    case QtInfoMsg:
        return "Info: %s (%s:%u, %s)\n";
    case QtWarningMsg:
        return "Warning: %s (%s:%u, %s)\n";
    case QtCriticalMsg:
        return "Critical: %s (%s:%u, %s)\n";
    case QtFatalMsg:
        return "Fatal: %s (%s:%u, %s)\n";
    }
    return nullptr;
}

const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

QByteArray cut(const QString &message)
{
    if (message.size() <= maxMessageLength)
        return message.toLocal8Bit();
    return message.left(maxMessageLength).toLocal8Bit() + "... (" +
           QByteArray::number(message.size() - maxMessageLength) + " more characters)";
}

/// Whether standard error takes a line now. A pipe says so when there is room for 4 KiB, which is
/// more than any line of ours has, with the one about lost lines in front of it.
bool isWritable()
{
    static bool readerHasStopped = false;
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    int ready = ::poll(&standardError, 1, readerHasStopped ? 0 : slowReaderWaitMs);
    // Interrupted by a signal, which says nothing about the reader.
    if (ready < 0)
        ready = ::poll(&standardError, 1, 0);
    readerHasStopped = ready == 0;
    return !readerHasStopped;
}

/// Whether the next line may be written; it is counted otherwise.
bool mayWriteLine()
{
    static unsigned int lostLines = 0;
    if (!isWritable()) {
        ++lostLines;
        return false;
    }
    if (lostLines > 0)
        std::fprintf(stderr, formatOf(QtWarningMsg),
                     ("log lines lost because nobody read them: " + QByteArray::number(lostLines))
                         .constData(),
                     printable(nullptr), 0U, printable(nullptr));
    lostLines = 0;
    return true;
}

} // namespace

void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const char *format = formatOf(type);
    if (format == nullptr)
        return;
    if (mayWriteLine())
        std::fprintf(stderr, format, cut(message).constData(), printable(context.file),
                     context.line, printable(context.function));
    if (type == QtFatalMsg)
        std::abort();
}
