#pragma once

#include "socketpoller.h"

#include <QTcpServer>

/// The listening server: hands out every connection as a ClientSocket and has a queue long enough
/// for a crowd of clients that connect at once. Keeps descriptors in reserve for the serial port
/// and for child processes: clients past that wait in the queue until another one leaves.
class ClientListener : public QTcpServer
{
    Q_OBJECT

public:
    explicit ClientListener(QObject *parent);
    ~ClientListener() override;

    /// Listens on all addresses, IPv4 and IPv6. Returns whether it does.
    bool listenOn(quint16 port);

    /// The one that all clients share.
    SocketPoller &poller() { return m_poller; }

protected:
    void incomingConnection(qintptr descriptor) override;

private:
    void goOnAccepting();
    void giveUpUnheardPeers();

    SocketPoller m_poller;
    qintptr m_lastClientDescriptor = 0;
};
