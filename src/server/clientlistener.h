#pragma once

#include <QTcpServer>

/// The listening server: hands out every connection as a ClientSocket, has a queue long enough for
/// a crowd of clients that connect at once, and goes on accepting after the process had run out
/// of descriptors.
class ClientListener : public QTcpServer
{
    Q_OBJECT

public:
    explicit ClientListener(QObject *parent);

    /// Listens on all addresses, IPv4 and IPv6. Returns whether it does.
    bool listenOn(quint16 port);

protected:
    void incomingConnection(qintptr descriptor) override;
};
