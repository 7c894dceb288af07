#include "clientlistener.h"

#include "clientsocket.h"

#include <QTimer>

#include <algorithm>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr int connectionQueueLength = 4096;
constexpr int acceptRetryMs = 500;
// Probes come every 20 s.
constexpr int unheardCheckMs = 20'000;
// A peer that does not read is asked every two minutes in the end, and one answer may be lost.
constexpr int unheardLimitMs = 270'000;
constexpr int pendingConnections = 30;
// The serial port and its lock file, and what starting a child process takes.
constexpr rlim_t reservedDescriptors = 32;

/// Descriptors are handed out from the lowest free number on, so a number tells how many are in
/// use.
qintptr lastClientDescriptor()
{
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    return static_cast<qintptr>(limit.rlim_cur - std::min(limit.rlim_cur, reservedDescriptors));
}

} // namespace

ClientListener::ClientListener(QObject *parent)
    : QTcpServer(parent)
    , m_poller(nullptr)
{
    setMaxPendingConnections(pendingConnections);
    // Accepting stays paused after an error until somebody resumes it.
    connect(this, &QTcpServer::acceptError, this,
            [this] { QTimer::singleShot(acceptRetryMs, this, &QTcpServer::resumeAccepting); });
    auto *unheardCheck = new QTimer(this);
    connect(unheardCheck, &QTimer::timeout, this, &ClientListener::giveUpUnheardPeers);
    unheardCheck->start(unheardCheckMs);
}

// Ends all connections as long as this is still the object that they report to and wait with.
ClientListener::~ClientListener()
{
    close();
    qDeleteAll(findChildren<QTcpSocket *>());
}

bool ClientListener::listenOn(quint16 port)
{
    if (!listen(QHostAddress(QHostAddress::Any), port))
        return false;
    // Listening again changes nothing but the length of the queue.
    ::listen(static_cast<int>(socketDescriptor()), connectionQueueLength);
    m_lastClientDescriptor = lastClientDescriptor();
    return true;
}

void ClientListener::incomingConnection(qintptr descriptor)
{
    auto *socket = new ClientSocket(m_poller, this);
    socket->setSocketDescriptor(descriptor, QAbstractSocket::ConnectedState, QIODevice::ReadWrite);
    connect(socket, &QObject::destroyed, this, &ClientListener::goOnAccepting);
    addPendingConnection(socket);
    // Pausing would not do: what waits in the queue now is accepted in one go.
    if (descriptor >= m_lastClientDescriptor)
        setMaxPendingConnections(0);
}

void ClientListener::giveUpUnheardPeers()
{
    const auto sockets = findChildren<QTcpSocket *>();
    for (QTcpSocket *socket : sockets)
        static_cast<ClientSocket *>(socket)->giveUpIfUnheardFor(unheardLimitMs);
}

void ClientListener::goOnAccepting()
{
    if (maxPendingConnections() > 0 || !isListening())
        return;
    setMaxPendingConnections(pendingConnections);
    resumeAccepting();
}
