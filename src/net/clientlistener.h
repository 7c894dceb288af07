#pragma once

#include "socketpoller.h"

#include <QTcpServer>
#include <QTimer>

#include <memory>

class ClientConnection;

/// Listens for clients and accepts them. Owns all connections and the poller that they share.
///
/// Keeps descriptors in reserve for the serial port and for child processes. If only these are
/// left, new clients wait in the kernel's queue until another client leaves. After an error of
/// accept() that is likely to persist, the listener pauses before the next attempt.
class ClientListener : public QObject
{
    Q_OBJECT

public:
    explicit ClientListener(QObject *parent);
    /// Closes all connections.
    ~ClientListener() override;

    /// Listens on all addresses, IPv4 and IPv6. Returns false if the port is not available.
    bool listenOn(quint16 port);

    /// The port of listenOn(); 0 before that call.
    quint16 port() const { return m_server.serverPort(); }

    /// Takes ownership of the connected socket `descriptor` and emits newConnection() for it.
    void addConnection(int descriptor);

signals:
    /// A client has connected. The listener owns the connection; the receiver deletes it with
    /// deleteLater() once it has ended.
    void newConnection(ClientConnection *connection);

private:
    void acceptConnections();
    void onConnectionDestroyed();
    void updateAccepting();
    void shutDownSilentConnections();

    SocketPoller m_poller;
    QTcpServer m_server; ///< Only listens, because it retries a failing accept() without a pause.
    std::unique_ptr<QSocketNotifier> m_notifier;
    QTimer m_acceptRetry; ///< Runs while accepting pauses after an error.
    QTimer m_memoryReturn;
    int m_lastClientDescriptor = 0;
    bool m_isFull = false; ///< Only the descriptors in reserve are left.
};
