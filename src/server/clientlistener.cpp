#include "clientlistener.h"

#include "clientsocket.h"

#include <QTimer>

#include <sys/socket.h>

namespace {

constexpr int connectionQueueLength = 4096;
constexpr int acceptRetryMs = 500;

} // namespace

ClientListener::ClientListener(QObject *parent)
    : QTcpServer(parent)
{
    // Accepting stays paused after an error until somebody resumes it.
    connect(this, &QTcpServer::acceptError, this,
            [this] { QTimer::singleShot(acceptRetryMs, this, &QTcpServer::resumeAccepting); });
}

bool ClientListener::listenOn(quint16 port)
{
    if (!listen(QHostAddress(QHostAddress::Any), port))
        return false;
    // Listening again changes nothing but the length of the queue.
    ::listen(static_cast<int>(socketDescriptor()), connectionQueueLength);
    return true;
}

void ClientListener::incomingConnection(qintptr descriptor)
{
    auto *socket = new ClientSocket(this);
    socket->setSocketDescriptor(descriptor, QAbstractSocket::ConnectedState, QIODevice::ReadWrite);
    addPendingConnection(socket);
}
