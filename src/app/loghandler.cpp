#include "loghandler.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QString>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

// Enough for a reader that is slow, and little for those who wait for the daemon meanwhile.
constexpr int slowReaderWaitMs = 20;

const char *severityOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "Debug";
    case QtInfoMsg:
        return "Info";
    case QtWarningMsg:
        return "Warning";
    case QtCriticalMsg:
        return "Critical";
    case QtFatalMsg:
        return "Fatal";
    }
    return nullptr;
}

const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

/// Standard error for one line. A terminal takes the part of a write that fits, and the writer
/// waits for the rest, without a limit if nobody reads it. So a terminal is opened once more,
/// without waiting. The descriptor of the process stays as it is: it is shared with others.
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

    /// Writes as much as the reader has room for, and returns how much that is. Bytes that can
    /// never be written count as written. Waits for a reader that is slow, but not for one that has
    /// stopped.
    int write(const QByteArray &bytes) const
    {
        int done = 0;
        while (done < bytes.size() && isReady()) {
            // A pipe that is ready has room for this much, so the write does not block.
            const auto piece = std::min(bytes.size() - done, PIPE_BUF);
            const ssize_t written =
                ::write(descriptor(), bytes.constData() + done, static_cast<std::size_t>(piece));
            if (written >= 0)
                done += static_cast<int>(written);
            else if (errno == EAGAIN)
                break;
            else if (errno != EINTR)
                return bytes.size();
        }
        return done;
    }

private:
    bool isReady() const
    {
        static bool readerHasStopped = false;
        pollfd output{descriptor(), POLLOUT, 0};
        int ready =
            ::poll(&output, 1, readerHasStopped ? 0 : static_cast<int>(m_deadline.remainingTime()));
        // Interrupted by a signal, which says nothing about the reader.
        if (ready < 0)
            ready = ::poll(&output, 1, 0);
        readerHasStopped = ready == 0;
        return !readerHasStopped;
    }

    int descriptor() const { return m_terminal >= 0 ? m_terminal : STDERR_FILENO; }

    QDeadlineTimer m_deadline{slowReaderWaitMs};
    int m_terminal = -1;
};

QByteArray lineOf(QtMsgType type, const QByteArray &message, const QMessageLogContext &context)
{
    return severityOf(type) + (": " + message) + " (" + printable(context.file) + ':' +
           QByteArray::number(static_cast<unsigned int>(context.line)) + ", " +
           printable(context.function) + ")\n";
}

/// Writes the line, or counts it when nobody reads; the next line reports how many were lost. A
/// line that has begun is completed before the next one begins, and is all that is kept.
void writeOrCount(const QByteArray &line)
{
    static QByteArray begun;
    static unsigned int lostLines = 0;
    const Output output;
    begun.remove(0, output.write(begun));
    if (!begun.isEmpty()) {
        ++lostLines;
        return;
    }
    QByteArray text = line;
    if (lostLines > 0)
        text.prepend(
            lineOf(QtWarningMsg,
                   "log lines lost because nobody read them: " + QByteArray::number(lostLines),
                   QMessageLogContext()));
    const int written = output.write(text);
    lostLines = written > 0 ? 0 : lostLines + 1;
    if (written > 0)
        begun = text.mid(written);
}

} // namespace

void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (severityOf(type) == nullptr)
        return;
    writeOrCount(lineOf(type, message.toLocal8Bit(), context));
    if (type == QtFatalMsg)
        std::abort();
}
