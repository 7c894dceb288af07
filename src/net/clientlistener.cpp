#include "clientlistener.h"

#include "clientsocket.h"

#include <algorithm>
#include <cerrno>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr int connectionQueueLength = 4096;
constexpr int acceptRetryMs = 500;
// Probes come every 20 s.
constexpr int unheardCheckMs = 20'000;
// A peer that does not read is asked every two minutes in the end, and one answer may be lost.
constexpr int unheardLimitMs = 270'000;
// The kernel takes 2 ms for the memory of ten thousand clients, so it gets a part at a time.
constexpr int memoryReturnMs = 20;
// The event loop then serves everything else before the next ones.
constexpr int acceptedPerTurn = 32;
// The serial port and its lock file, and what starting a child process takes.
constexpr rlim_t reservedDescriptors = 32;

/// Descriptors are handed out from the lowest free number on, so a number tells how many are in
/// use.
int lastClientDescriptor()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<int>(limit.rlim_cur - std::min(limit.rlim_cur, reservedDescriptors));
}

/// Whether the error ended one connection in the queue, so that the next one can be accepted. The
/// kernel reports network errors of a new connection through accept().
bool concernsOneConnection(int error)
{
    switch (error) {
    case ECONNABORTED:
    case EHOSTDOWN:
    case EHOSTUNREACH:
    case EINTR:
    case ENETDOWN:
    case ENETUNREACH:
    case ENONET:
    case ENOPROTOOPT:
    case EOPNOTSUPP:
    case EPROTO:
        return true;
    default:
        return false;
    }
}

} // namespace

ClientListener::ClientListener(QObject *parent)
    : QTcpServer(parent)
    , m_poller(nullptr)
{
    m_acceptRetry.setSingleShot(true);
    m_acceptRetry.setInterval(acceptRetryMs);
    connect(&m_acceptRetry, &QTimer::timeout, this, &ClientListener::updateAccepting);
    m_memoryReturn.setSingleShot(true);
    m_memoryReturn.setInterval(memoryReturnMs);
    // By itself the C library returns only free memory at the end of the heap.
    connect(&m_memoryReturn, &QTimer::timeout, this, [] { ::malloc_trim(0); });
    auto *unheardCheck = new QTimer(this);
    connect(unheardCheck, &QTimer::timeout, this, &ClientListener::giveUpUnheardPeers);
    unheardCheck->start(unheardCheckMs);
}

// Ends all connections as long as this is still the object that they report to and wait with.
ClientListener::~ClientListener()
{
    qDeleteAll(findChildren<QTcpSocket *>());
    m_notifier.reset();
    close();
}

bool ClientListener::listenOn(quint16 port)
{
    if (!listen(QHostAddress(QHostAddress::Any), port))
        return false;
    const auto descriptor = static_cast<int>(socketDescriptor());
    // Listening again changes nothing but the length of the queue.
    ::listen(descriptor, connectionQueueLength);
    m_lastClientDescriptor = lastClientDescriptor();
    pauseAccepting();
    m_notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this,
            &ClientListener::acceptConnections);
    return true;
}

bool ClientListener::hasPendingConnections() const
{
    return !m_pending.isEmpty();
}

QTcpSocket *ClientListener::nextPendingConnection()
{
    return m_pending.isEmpty() ? nullptr : m_pending.dequeue();
}

void ClientListener::acceptConnections()
{
    for (int count = 0; count < acceptedPerTurn && !m_isFull; ++count) {
        const int descriptor =
            ::accept4(static_cast<int>(socketDescriptor()), nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor >= 0) {
            addClient(descriptor);
        } else if (errno == EAGAIN) {
            return;
        } else if (!concernsOneConnection(errno)) {
            m_acceptRetry.start();
            break;
        }
    }
    updateAccepting();
}

void ClientListener::addClient(int descriptor)
{
    auto *socket = new ClientSocket(m_poller, this);
    socket->setSocketDescriptor(descriptor, QAbstractSocket::ConnectedState, QIODevice::ReadWrite);
    connect(socket, &QObject::destroyed, this, &ClientListener::onClientDestroyed);
    m_isFull = descriptor >= m_lastClientDescriptor;
    m_pending.enqueue(socket);
    emit newConnection();
}

void ClientListener::onClientDestroyed()
{
    m_isFull = false;
    updateAccepting();
    if (!m_memoryReturn.isActive())
        m_memoryReturn.start();
}

/// A client that leaves does not end the pause after an error: the error may persist.
void ClientListener::updateAccepting()
{
    m_notifier->setEnabled(!m_isFull && !m_acceptRetry.isActive());
}

void ClientListener::giveUpUnheardPeers()
{
    const auto sockets = findChildren<QTcpSocket *>();
    for (QTcpSocket *socket : sockets)
        static_cast<ClientSocket *>(socket)->giveUpIfUnheardFor(unheardLimitMs);
}
