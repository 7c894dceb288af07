#include "clientsocket.h"

#include <QScopedValueRollback>
#include <QTimer>

#include <algorithm>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

struct KernelOption
{
    int level;
    int name;
    int value;
};

// Replies leave at once, and a peer that vanished without a word is given up within four minutes:
// probed after one minute of silence. No TCP_USER_TIMEOUT: it also ends connections whose peer
// answers every probe, and just does not read.
constexpr std::array<KernelOption, 5> clientOptions{{
    {IPPROTO_TCP, TCP_NODELAY, 1},
    {SOL_SOCKET, SO_KEEPALIVE, 1},
    {IPPROTO_TCP, TCP_KEEPIDLE, 60},
    {IPPROTO_TCP, TCP_KEEPINTVL, 20},
    {IPPROTO_TCP, TCP_KEEPCNT, 9},
}};

// One piece of memory for the replies to a batch.
constexpr int usualBatchLength = 256;
constexpr int sendRetryMs = 50;

bool isTemporary(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/// The system has run out of memory or buffers. The kernel reports room to write all the same.
bool isShortage(int error)
{
    return error == ENOBUFS || error == ENOMEM;
}

} // namespace

ClientSocket *ClientSocket::__notifying = nullptr;

ClientSocket::ClientSocket(SocketPoller &poller, QObject *parent)
    : QTcpSocket(parent)
    , m_poller(poller)
{
}

ClientSocket::~ClientSocket()
{
    // The base class must not look for a connection that it never had.
    setSocketState(UnconnectedState);
    m_registration.reset();
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

bool ClientSocket::setSocketDescriptor(qintptr descriptor, SocketState state, OpenMode openMode)
{
    m_descriptor = static_cast<int>(descriptor);
    for (const KernelOption &option : clientOptions)
        ::setsockopt(m_descriptor, option.level, option.name, &option.value, sizeof option.value);
    setSocketState(state);
    setOpenMode(openMode | Unbuffered);
    m_registration.emplace(m_poller, m_descriptor, static_cast<Listener &>(*this));
    updateInterests();
    return true;
}

qint64 ClientSocket::bytesToWrite() const
{
    return m_unsent.size();
}

qint64 ClientSocket::readData(char *data, qint64 maxSize)
{
    if (m_inputEnded)
        return -1;
    const ssize_t received =
        ::recv(m_descriptor, data, static_cast<std::size_t>(maxSize), MSG_DONTWAIT);
    if (received > 0)
        return received;
    if (received == 0 || !isTemporary(errno)) {
        m_inputEnded = true;
        updateInterests();
        reportEndIfOver();
    }
    return -1;
}

qint64 ClientSocket::writeData(const char *data, qint64 size)
{
    addReply({data, static_cast<std::size_t>(size)});
    return size;
}

void ClientSocket::addReply(std::string_view reply)
{
    // Whoever can no longer be written to still has its requests carried out.
    if (m_outputEnded)
        return;
    if (m_unsent.isEmpty())
        m_unsent.reserve(usualBatchLength);
    m_unsent.append(reply.data(), static_cast<int>(reply.size()));
}

void ClientSocket::sendReplies()
{
    sendUnsent();
    updateInterests();
}

void ClientSocket::onReadable()
{
    const QScopedValueRollback<ClientSocket *> notifying(__notifying, this);
    emit readyRead();
}

void ClientSocket::onWritable()
{
    sendUnsent();
    updateInterests();
    reportEndIfOver();
}

void ClientSocket::sendUnsent()
{
    if (m_unsent.isEmpty() || m_sendingPaused)
        return;
    const ssize_t sent =
        ::send(m_descriptor, m_unsent.constData(), static_cast<std::size_t>(m_unsent.size()),
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

void ClientSocket::pauseSending()
{
    m_sendingPaused = true;
    QTimer::singleShot(sendRetryMs, this, [this] {
        m_sendingPaused = false;
        onWritable();
    });
}

/// The end of its connection shows a client that no reply comes. The daemon still reads all that
/// had arrived.
void ClientSocket::shutDown()
{
    endOutput();
    ::shutdown(m_descriptor, SHUT_RDWR);
}

void ClientSocket::endOutput()
{
    m_outputEnded = true;
    m_unsent.clear();
}

void ClientSocket::updateInterests()
{
    const bool mayRead = !m_inputEnded && !m_paused && m_unsent.size() <= __replyLimit;
    SocketPoller::Interests interests;
    interests.setFlag(SocketPoller::Readable, mayRead);
    interests.setFlag(SocketPoller::Writable, !m_unsent.isEmpty() && !m_sendingPaused);
    // Whoever would not be heard any more is better off without the connection.
    if (!m_registration->setInterests(interests))
        QMetaObject::invokeMethod(
            this, [this] { giveUp(); }, Qt::QueuedConnection);
}

void ClientSocket::setPaused(bool paused)
{
    m_paused = paused;
    updateInterests();
}

void ClientSocket::giveUpIfUnheardFor(int limitMs)
{
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(m_descriptor, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return;
    if (std::min(info.tcpi_last_ack_recv, info.tcpi_last_data_recv) > static_cast<quint32>(limitMs))
        ::shutdown(m_descriptor, SHUT_RDWR);
}

void ClientSocket::giveUp()
{
    m_inputEnded = true;
    endOutput();
    updateInterests();
    reportEndIfOver();
}

void ClientSocket::hold()
{
    ++m_holds;
}

void ClientSocket::release()
{
    --m_holds;
    reportEndIfOver();
}

/// From the event loop, so that nobody who is on the stack now finds the socket gone.
void ClientSocket::reportEndIfOver()
{
    if (!m_inputEnded || m_holds > 0 || !m_unsent.isEmpty() || m_endReported)
        return;
    m_endReported = true;
    const auto report = [this] {
        setSocketState(UnconnectedState);
        const QScopedValueRollback<ClientSocket *> notifying(__notifying, this);
        emit disconnected();
    };
    QMetaObject::invokeMethod(this, report, Qt::QueuedConnection);
}
