// A minimal line server with Qt: it answers every line with the same reply. It shows the cost of
// Qt.

#include <QCoreApplication>
#include <QTcpServer>
#include <QTcpSocket>

#include <cstdio>
#include <cstdlib>
#include <sys/resource.h>
#include <sys/socket.h>

namespace {

constexpr int connectionQueueLength = 4096;

void answer(QTcpSocket *socket, const QByteArray &reply)
{
    while (socket->canReadLine()) {
        socket->readLine();
        socket->write(reply);
    }
    // Without this, the replies wait for the next turn of the event loop.
    socket->flush();
}

void acceptAll(QTcpServer &server, const QByteArray &reply)
{
    while (QTcpSocket *socket = server.nextPendingConnection()) {
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        QObject::connect(socket, &QTcpSocket::readyRead, socket,
                         [socket, reply] { answer(socket, reply); });
        QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fputs("usage: bench-qt-echo PORT REPLY\n", stderr);
        return 2;
    }
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);

    QCoreApplication application(argc, argv);
    const QByteArray reply(argv[2]);
    QTcpServer server;
    QObject::connect(&server, &QTcpServer::newConnection, &server,
                     [&server, &reply] { acceptAll(server, reply); });
    if (!server.listen(QHostAddress::LocalHost, static_cast<quint16>(std::atoi(argv[1]))))
        return 1;
    // Listening again changes only the length of the queue.
    ::listen(static_cast<int>(server.socketDescriptor()), connectionQueueLength);
    return QCoreApplication::exec();
}
