#include "standardinput.h"

#include <array>
#include <cerrno>

#include <unistd.h>

namespace sim {

namespace {
constexpr int bufferSize = 4096;
}

StandardInput::StandardInput(QObject *parent)
    : QObject(parent)
    , m_notifier(STDIN_FILENO, QSocketNotifier::Read)
{
    connect(&m_notifier, &QSocketNotifier::activated, this, &StandardInput::onReadable);
}

void StandardInput::onReadable()
{
    std::array<char, bufferSize> buffer = {};
    const ssize_t count = ::read(STDIN_FILENO, buffer.data(), buffer.size());
    if (count < 0 && (errno == EAGAIN || errno == EINTR))
        return;
    if (count <= 0) {
        end();
        return;
    }
    m_pending.append(buffer.data(), static_cast<int>(count));
    emitLines();
}

void StandardInput::emitLines()
{
    for (int end = m_pending.indexOf('\n'); end >= 0; end = m_pending.indexOf('\n')) {
        const QByteArray line = m_pending.left(end);
        m_pending.remove(0, end + 1);
        emit lineRead(QString::fromUtf8(line));
    }
}

void StandardInput::end()
{
    m_notifier.setEnabled(false);
    if (!m_pending.isEmpty())
        emit lineRead(QString::fromUtf8(m_pending));
    m_pending.clear();
    emit ended();
}

} // namespace sim
