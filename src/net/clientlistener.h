#pragma once

#include "socketpoller.h"

#include <QQueue>
#include <QTcpServer>
#include <QTimer>

#include <memory>

class ClientSocket;

/// The listening server: hands out every connection as a ClientSocket and has a queue long enough
/// for a crowd of clients that connect at once. Keeps descriptors in reserve for the serial port
/// and for child processes: clients past that wait in the queue until another one leaves.
///
/// Accepts connections itself: the base class retries without a pause once accept() keeps failing.
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

    bool hasPendingConnections() const override;
    /// The connection that newConnection() announces, or null.
    QTcpSocket *nextPendingConnection() override;

private:
    void acceptConnections();
    void addClient(int descriptor);
    void onClientDestroyed();
    void updateAccepting();
    void giveUpUnheardPeers();

    SocketPoller m_poller;
    std::unique_ptr<QSocketNotifier> m_notifier;
    QQueue<ClientSocket *> m_pending;
    QTimer m_acceptRetry; ///< Runs while accepting pauses after an error.
    QTimer m_memoryReturn;
    int m_lastClientDescriptor = 0;
    bool m_isFull = false; ///< Only the descriptors in reserve are left.
};
