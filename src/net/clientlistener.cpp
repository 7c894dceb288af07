#include "clientlistener.h"

#include "clientconnection.h"

#include <algorithm>
#include <cerrno>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr int connectionQueueLength = 4096;
constexpr int acceptRetryMs = 500;
// As often as the kernel probes a silent peer.
constexpr int silenceCheckMs = 20'000;
// If a peer does not read, the kernel probes its window at growing intervals, up to two minutes.
// The limit allows for one lost answer.
constexpr int silenceLimitMs = 270'000;
// The kernel needs 2 ms to take back the memory of 10,000 clients at once. With this short delay it
// takes back smaller parts.
constexpr int memoryReturnMs = 20;
// After this many connections, the event loop first processes all other events.
constexpr int acceptedPerTurn = 32;
// For the serial port, its lock file and the start of a child process.
constexpr rlim_t reservedDescriptors = 32;

/// The greatest descriptor for a client. The kernel assigns the lowest free number, so all numbers
/// below a new descriptor are in use.
int lastClientDescriptor()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<int>(limit.rlim_cur - std::min(limit.rlim_cur, reservedDescriptors));
}

/// Returns whether the error concerns only the first connection in the queue, so that the next one
/// can be accepted. accept() also reports network errors of the new connection.
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
    : QObject(parent)
    , m_poller(nullptr)
{
    m_acceptRetry.setSingleShot(true);
    m_acceptRetry.setInterval(acceptRetryMs);
    connect(&m_acceptRetry, &QTimer::timeout, this, &ClientListener::updateAccepting);
    m_memoryReturn.setSingleShot(true);
    m_memoryReturn.setInterval(memoryReturnMs);
    // Without this call the C library returns only free memory at the end of the heap.
    connect(&m_memoryReturn, &QTimer::timeout, this, [] { ::malloc_trim(0); });
    auto *silenceCheck = new QTimer(this);
    connect(silenceCheck, &QTimer::timeout, this, &ClientListener::shutDownSilentConnections);
    silenceCheck->start(silenceCheckMs);
}

// The connections use the poller and report to this object, so they end before its members.
ClientListener::~ClientListener()
{
    qDeleteAll(findChildren<ClientConnection *>());
}

bool ClientListener::listenOn(quint16 port)
{
    if (!m_server.listen(QHostAddress(QHostAddress::Any), port))
        return false;
    const auto descriptor = static_cast<int>(m_server.socketDescriptor());
    // A second listen() only changes the length of the queue.
    ::listen(descriptor, connectionQueueLength);
    m_lastClientDescriptor = lastClientDescriptor();
    m_server.pauseAccepting();
    m_notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this,
            &ClientListener::acceptConnections);
    return true;
}

void ClientListener::acceptConnections()
{
    const auto listening = static_cast<int>(m_server.socketDescriptor());
    for (int count = 0; count < acceptedPerTurn && !m_isFull; ++count) {
        const int descriptor = ::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC);
        if (descriptor >= 0) {
            m_isFull = descriptor >= m_lastClientDescriptor;
            addConnection(descriptor);
        } else if (errno == EAGAIN) {
            return;
        } else if (!concernsOneConnection(errno)) {
            m_acceptRetry.start();
            break;
        }
    }
    updateAccepting();
}

void ClientListener::addConnection(int descriptor)
{
    auto *connection = new ClientConnection(m_poller, descriptor, this);
    connect(connection, &QObject::destroyed, this, &ClientListener::onConnectionDestroyed);
    emit newConnection(connection);
}

void ClientListener::onConnectionDestroyed()
{
    m_isFull = false;
    updateAccepting();
    if (!m_memoryReturn.isActive())
        m_memoryReturn.start();
}

/// When a client leaves, the pause after an error continues, because the error may persist.
void ClientListener::updateAccepting()
{
    m_notifier->setEnabled(!m_isFull && !m_acceptRetry.isActive());
}

void ClientListener::shutDownSilentConnections()
{
    const auto connections = findChildren<ClientConnection *>();
    for (ClientConnection *connection : connections)
        connection->shutDownIfSilentFor(silenceLimitMs);
}
