#include "loghandler.h"

#include <QString>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
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

/// Where lines are written to while it exists. A terminal takes the part of a line that fits and
/// lets the writer wait for the rest, without a limit if nobody reads it: that is why a terminal is
/// opened once more, not to be waited for. What we were given stays as it is: it is shared with
/// others.
class Output
{
public:
    Output()
    {
        if (::isatty(STDERR_FILENO) != 0)
            m_terminal = ::open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    ~Output()
    {
        if (m_terminal >= 0)
            ::close(m_terminal);
    }
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /// Waits a little for a reader that is slow, not again for one that has stopped. A pipe is
    /// ready when there is room for 4 KiB, which is more than any line of ours has, with the one
    /// about lost lines in front of it.
    bool isReady() const
    {
        static bool readerHasStopped = false;
        pollfd output{descriptor(), POLLOUT, 0};
        int ready = ::poll(&output, 1, readerHasStopped ? 0 : slowReaderWaitMs);
        // Interrupted by a signal, which says nothing about the reader.
        if (ready < 0)
            ready = ::poll(&output, 1, 0);
        readerHasStopped = ready == 0;
        return !readerHasStopped;
    }

    /// Writes what could not be written of the lines before, then `line`. False if something is
    /// left of them.
    bool write(const QByteArray &line) const
    {
        static QByteArray unwritten;
        unwritten += line;
        if (unwritten.isEmpty())
            return true;
        const ssize_t written = ::write(descriptor(), unwritten.constData(),
                                        static_cast<std::size_t>(unwritten.size()));
        // Of what takes nothing any more nothing is kept.
        const bool isTakenLater = written >= 0 || errno == EAGAIN || errno == EINTR;
        unwritten.remove(0, isTakenLater ? static_cast<int>(std::max<ssize_t>(written, 0))
                                         : unwritten.size());
        return unwritten.isEmpty();
    }

private:
    int descriptor() const { return m_terminal >= 0 ? m_terminal : STDERR_FILENO; }

    int m_terminal = -1;
};

QByteArray lineOf(QtMsgType type, const QByteArray &message, const QMessageLogContext &context)
{
    const auto print = [&](char *text, std::size_t size) {
        return std::snprintf(text, size, formatOf(type), message.constData(),
                             printable(context.file), static_cast<unsigned int>(context.line),
                             printable(context.function));
    };
    QByteArray line(print(nullptr, 0), Qt::Uninitialized);
    print(line.data(), static_cast<std::size_t>(line.size()) + 1);
    return line;
}

/// Writes the line, or counts it when nobody reads; what was counted is told in front of the next.
void writeOrCount(const QByteArray &line)
{
    static unsigned int lostLines = 0;
    const Output output;
    if (!output.isReady() || !output.write({})) {
        ++lostLines;
        return;
    }
    if (lostLines > 0)
        output.write(
            lineOf(QtWarningMsg,
                   "log lines lost because nobody read them: " + QByteArray::number(lostLines),
                   QMessageLogContext()));
    lostLines = 0;
    output.write(line);
}

} // namespace

void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (formatOf(type) == nullptr)
        return;
    writeOrCount(lineOf(type, cut(message), context));
    if (type == QtFatalMsg)
        std::abort();
}
