#include "logsink.h"

#include <QMessageLogContext>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace {

// The sink waits at most this long for a slow reader. All clients wait meanwhile.
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

QByteArray lineOf(const char *severity, const QMessageLogContext &context,
                  const QByteArray &message)
{
    return severity + (": " + message) + " (" + printable(context.file) + ':' +
           QByteArray::number(static_cast<unsigned int>(context.line)) + ", " +
           printable(context.function) + ")\n";
}

/// The descriptor that one line is written to. A write to a full terminal blocks until the terminal
/// is read. The flags of the shared descriptor must not change, so this class opens the terminal
/// once more, non-blocking.
class LineOutput
{
public:
    explicit LineOutput(int shared)
        : m_shared(shared)
    {
        if (::isatty(shared) == 0)
            return;
        const QByteArray path = "/proc/self/fd/" + QByteArray::number(shared);
        m_terminal = ::open(path.constData(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    ~LineOutput()
    {
        if (m_terminal >= 0)
            ::close(m_terminal);
    }
    LineOutput(const LineOutput &) = delete;
    LineOutput &operator=(const LineOutput &) = delete;

    int descriptor() const { return m_terminal >= 0 ? m_terminal : m_shared; }

private:
    int m_shared;
    int m_terminal = -1;
};

} // namespace

void LogSink::write(QtMsgType type, const QMessageLogContext &context, const QByteArray &message)
{
    const char *const severity = severityOf(type);
    if (severity == nullptr)
        return;
    const LineOutput output(m_descriptor);
    const QDeadlineTimer deadline(slowReaderWaitMs);
    m_restOfLine.remove(0, writePart(output.descriptor(), m_restOfLine, deadline));
    if (!m_restOfLine.isEmpty()) {
        ++m_lostLines;
        return;
    }
    QByteArray text = lineOf(severity, context, message);
    if (m_lostLines > 0)
        text.prepend(
            lineOf(severityOf(QtWarningMsg), QMessageLogContext(),
                   "log lines lost because nobody read them: " + QByteArray::number(m_lostLines)));
    const int written = writePart(output.descriptor(), text, deadline);
    if (written == 0) {
        ++m_lostLines;
        return;
    }
    m_lostLines = 0;
    m_restOfLine = text.mid(written);
}

/// Writes as much as the reader has room for and returns the number of bytes. If the reader is
/// gone, all bytes count as written, because no later write can succeed.
int LogSink::writePart(int output, const QByteArray &bytes, const QDeadlineTimer &deadline)
{
    int done = 0;
    while (done < bytes.size() && isReady(output, deadline)) {
        // A pipe that is ready has room for this much, so the write does not block.
        const auto piece = std::min(bytes.size() - done, PIPE_BUF);
        const ssize_t written =
            ::write(output, bytes.constData() + done, static_cast<std::size_t>(piece));
        if (written >= 0)
            done += static_cast<int>(written);
        else if (errno == EAGAIN)
            break;
        else if (errno != EINTR)
            return bytes.size();
    }
    return done;
}

bool LogSink::isReady(int output, const QDeadlineTimer &deadline)
{
    pollfd poller{output, POLLOUT, 0};
    int ready =
        ::poll(&poller, 1, m_readerHasStopped ? 0 : static_cast<int>(deadline.remainingTime()));
    // A signal has interrupted the wait, so the result says nothing about the reader.
    if (ready < 0)
        ready = ::poll(&poller, 1, 0);
    m_readerHasStopped = ready == 0;
    return !m_readerHasStopped;
}
