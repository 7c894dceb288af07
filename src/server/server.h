#pragma once

#include "commandset.h"
#include "firstline.h"
#include "gripperlist.h"
#include "modbusconstraintsfactory.h"
#include "requestturns.h"

#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QVector>

class ClientConnection;
class ClientListener;

/// Serves the clients on port 63352: accepts them, reads GET and SET requests and answers them.
/// Owns the gripper list, and with it the whole driver.
///
/// A request may wait on the bus and pump events. Requests that arrive meanwhile, also from the
/// same client, are processed inside the wait. `RequestTurns` limits how deep they nest.
///
/// Closes a connection that begins with HTTP or TLS and processes none of its SETs: a web page can
/// make a browser send requests to this port.
class Server : public QObject, public CommandSet, private RequestTurns::Handler
{
    Q_OBJECT

public:
    using Gripper = GripperList::Gripper;

    /// Starts listening and installs the handlers of the quit signals. Aborts the process with a
    /// fatal log line if the port is not available.
    Server();
    ~Server() override;

    /// Ignores each of `ignoreSignals`. Each of `quitSignals` ends the event loop with code 0.
    void catchUnixSignals(const QVector<int> &quitSignals, const QVector<int> &ignoreSignals);

    /// Answers one GET request. `client` may be null; then nothing is written. `gripper` may be
    /// null; then variables that need a gripper answer "?". May pump events.
    void decodeGetVariables(ClientConnection *client, const Request &request,
                            const Gripper &gripper);

    /// Applies the pairs of one SET request from left to right and writes one reply. `client` may
    /// be null; then nothing is written. Pumps events if a pair waits on the bus. Returns whether a
    /// pair may have waited on the bus or blocked.
    bool decodeSetVariables(ClientConnection *client, const Request &request,
                            const Gripper &gripper);

    static constexpr quint16 __port = 63352;

public slots:
    void onClientSocketConnection(ClientConnection *client);
    void onClientSocketDisconnect(ClientConnection *client);
    void onClientSocketReadData(ClientConnection *client);
    /// Answers the complete requests in the client's buffer. All of them address the gripper that
    /// is selected when this call begins. Pumps events if a request does.
    void processSocket(ClientConnection *client);

private:
    friend class tst_Server;

    /// The bytes that a client has sent.
    struct Input
    {
        FirstLine firstLine;
        RequestScanner requests;
    };

    bool mayWait(const Request &request, const Gripper &gripper) const override;
    bool mayNest() const override;
    bool processRequest(ClientConnection *client, const Request &request,
                        const Gripper &gripper) override;
    void readBatch(ClientConnection *client);
    static void refuse(ClientConnection *client, FirstLine::Protocol protocol);

    ClientListener *tcpServer;
    QVector<ClientConnection *> clientSockets;
    QMap<ClientConnection *, Input> bufferBySocket;
    QMap<ClientConnection *, int> slaveIdBySocket;
    QHostAddress listenAddress;
    GripperList gripperList;
    ModbusConstraintsFactory constraintsFactory;
    RequestTurns m_turns;
};
