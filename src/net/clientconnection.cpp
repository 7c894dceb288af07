#include "clientconnection.h"

#include <QDebug>
#include <QTimer>

#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace {

struct KernelOption
{
    int level;
    int name;
    int value;
};

// The kernel sends replies without delay. It probes a silent peer after 60 s and ends the
// connection within four minutes. TCP_USER_TIMEOUT is not set, because it would also end the
// connection of a peer that answers every probe but does not read.
constexpr std::array<KernelOption, 5> clientOptions{{
    {IPPROTO_TCP, TCP_NODELAY, 1},
    {SOL_SOCKET, SO_KEEPALIVE, 1},
    {IPPROTO_TCP, TCP_KEEPIDLE, 60},
    {IPPROTO_TCP, TCP_KEEPINTVL, 20},
    {IPPROTO_TCP, TCP_KEEPCNT, 9},
}};

// The replies to one batch usually fit, so they need one allocation.
constexpr int usualBatchLength = 256;
constexpr int sendRetryMs = 50;

bool isTemporary(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/// The system has run out of memory or buffers. The kernel still reports room to write, so a retry
/// needs a pause.
bool isShortage(int error)
{
    return error == ENOBUFS || error == ENOMEM;
}

} // namespace

ClientConnection::ClientConnection(SocketPoller &poller, int descriptor, QObject *parent)
    : QObject(parent)
    , m_descriptor(descriptor)
    , m_registration(poller, descriptor, *this)
{
    for (const KernelOption &option : clientOptions)
        ::setsockopt(descriptor, option.level, option.name, &option.value, sizeof option.value);
    updateInterests();
}

std::size_t ClientConnection::read(char *bytes, std::size_t maxSize)
{
    if (m_inputEnded)
        return 0;
    const ssize_t received = ::recv(m_descriptor.get(), bytes, maxSize, MSG_DONTWAIT);
    if (received > 0)
        return static_cast<std::size_t>(received);
    if (received == 0 || !isTemporary(errno)) {
        m_inputEnded = true;
        updateInterests();
        emitEndedIfOver();
    }
    return 0;
}

void ClientConnection::addReply(std::string_view reply)
{
    if (m_outputEnded)
        return;
    if (m_unsent.isEmpty())
        m_unsent.reserve(usualBatchLength);
    m_unsent.append(reply.data(), static_cast<int>(reply.size()));
}

void ClientConnection::sendReplies()
{
    sendUnsent();
    updateInterests();
}

void ClientConnection::onReadable()
{
    emit readable();
}

void ClientConnection::onWritable()
{
    sendUnsent();
    updateInterests();
    emitEndedIfOver();
}

void ClientConnection::sendUnsent()
{
    if (m_unsent.isEmpty() || m_sendingPaused)
        return;
    const ssize_t sent =
        ::send(m_descriptor.get(), m_unsent.constData(), static_cast<std::size_t>(m_unsent.size()),
               MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent == m_unsent.size())
        m_unsent.clear();
    else if (sent >= 0)
        m_unsent.remove(0, static_cast<int>(sent));
    else if (isShortage(errno))
        pauseSending();
    else if (!isTemporary(errno))
        shutDown();
}

void ClientConnection::pauseSending()
{
    m_sendingPaused = true;
    QTimer::singleShot(sendRetryMs, this, [this] {
        m_sendingPaused = false;
        onWritable();
    });
}

/// The client sees the end of its connection instead of the replies. Bytes that have arrived can
/// still be read.
void ClientConnection::shutDown()
{
    endOutput();
    ::shutdown(m_descriptor.get(), SHUT_RDWR);
}

void ClientConnection::endOutput()
{
    m_outputEnded = true;
    m_unsent.clear();
}

void ClientConnection::updateInterests()
{
    const bool mayRead = !m_inputEnded && !m_paused && m_unsent.size() <= replyLimit;
    SocketPoller::Interests interests;
    interests.setFlag(SocketPoller::Readable, mayRead);
    interests.setFlag(SocketPoller::Writable, !m_unsent.isEmpty() && !m_sendingPaused);
    // Without its events the connection would hang forever, so drop it. Drop it later, because this
    // call may come from drop() itself.
    if (!m_registration.setInterests(interests))
        QMetaObject::invokeMethod(this, &ClientConnection::drop, Qt::QueuedConnection);
}

void ClientConnection::pause()
{
    m_paused = true;
    updateInterests();
}

void ClientConnection::resume()
{
    m_paused = false;
    updateInterests();
}

void ClientConnection::hold()
{
    ++m_holds;
}

void ClientConnection::release()
{
    --m_holds;
    emitEndedIfOver();
}

void ClientConnection::shutDownIfSilentFor(int limitMs)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(m_descriptor.get(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return;
    if (std::min(info.tcpi_last_ack_recv, info.tcpi_last_data_recv) > static_cast<quint32>(limitMs))
        ::shutdown(m_descriptor.get(), SHUT_RDWR);
}

void ClientConnection::drop()
{
    m_inputEnded = true;
    endOutput();
    updateInterests();
    emitEndedIfOver();
}

/// Emits ended() from the event loop, because callers on the stack may still use the connection.
void ClientConnection::emitEndedIfOver()
{
    if (!m_inputEnded || m_holds > 0 || !m_unsent.isEmpty() || m_endReported)
        return;
    m_endReported = true;
    QMetaObject::invokeMethod(this, &ClientConnection::ended, Qt::QueuedConnection);
}

QDebug operator<<(QDebug debug, const ClientConnection *connection)
{
    const QDebugStateSaver saver(debug);
    debug.nospace() << "QTcpSocket(" << static_cast<const void *>(connection) << ')';
    return debug;
}
