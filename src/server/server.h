#pragma once

#include "firstline.h"
#include "gripperlist.h"
#include "modbusconstraintsfactory.h"
#include "requestscanner.h"

#include <QHostAddress>
#include <QMap>
#include <QObject>
#include <QQueue>
#include <QVector>

#include <optional>
#include <string_view>

class ClientListener;
class ClientConnection;

/// The daemon's interface to its clients: accepts them on port 63352, cuts GET and SET requests out
/// of what they send and answers them. Owns the gripper list, and so the whole driver.
///
/// A request may wait on the bus and pump events meanwhile; requests that arrive during the wait,
/// of the same client too, are carried out inside it. When __nestingLimit of them wait inside each
/// other, the next one that would wait is postponed until one of those is over, and with it all
/// that its client sends behind it; postponed requests are carried out in the order of their
/// coming.
///
/// Closes a connection that begins with HTTP or TLS, and carries out nothing of it: a web page can
/// make a browser send requests to this port.
class Server : public QObject
{
    Q_OBJECT

public:
    using Gripper = GripperList::Gripper;

    /// Starts listening and arms the quit signals. Aborts the process, after a fatal log line,
    /// when the port cannot be listened on.
    Server();
    ~Server() override;

    /// Ignores each of `ignoreSignals`; lets each of `quitSignals` end the event loop with code 0.
    void catchUnixSignals(const QVector<int> &quitSignals, const QVector<int> &ignoreSignals);

    /// Answers one GET request. Without `client` nothing is written; without `gripper` the
    /// variables that need one answer "?". May pump events.
    void decodeGetVariables(ClientConnection *client, const Request &match, const Gripper &gripper);

    /// Carries out the pairs of one SET request, left to right, and writes one reply. Without
    /// `client` no reply is written. Pumps events for the pairs that wait on the bus.
    void decodeSetVariables(ClientConnection *client, const Request &match, const Gripper &gripper);

    /// 0 is manual, 1 automatic; any other mode changes nothing and returns "nak".
    static std::string_view handleSetGripperModeRequest(const Gripper &gripper, quint8 mode);

    static constexpr quint16 __port = 63352;

    /// Each level costs some 3 KiB of stack and a 10 ms timer.
    static constexpr int __nestingLimit = 32;

    static constexpr std::string_view __acknowledge = "ack";
    static constexpr std::string_view __notAcknowledge = "nak";

    static constexpr std::string_view __activateRequest = "ACT";
    static constexpr std::string_view __gripperMode = "MOD";
    static constexpr std::string_view __goto = "GTO";
    static constexpr std::string_view __automaticReleaseRoutine = "ATR";
    static constexpr std::string_view __autoreleaseDirection = "ARD";
    static constexpr std::string_view __status = "STA";
    static constexpr std::string_view __vacuumStatus = "VST";
    static constexpr std::string_view __objectDetected = "OBJ";
    static constexpr std::string_view __fault = "FLT";
    static constexpr std::string_view __ledBypass = "LBP";
    static constexpr std::string_view __greenLed = "LGN";
    static constexpr std::string_view __redLed = "LRD";
    static constexpr std::string_view __blueLed = "LBL";
    static constexpr std::string_view __maxPeakSupplyCurrent = "MSC";
    static constexpr std::string_view __positionRequestEcho = "PRE";
    static constexpr std::string_view __positionRequest = "POS";
    static constexpr std::string_view __motorCurrent = "COU";
    static constexpr std::string_view __serialNumber = "SNU";
    static constexpr std::string_view __productionYear = "PYE";
    static constexpr std::string_view __numberOfCycles = "NCY";
    static constexpr std::string_view __numberOfSecondsPumpIsOn = "PON";
    static constexpr std::string_view __numberOfPumpActivations = "NPA";
    static constexpr std::string_view __firmwareVersion = "FWV";
    static constexpr std::string_view __driverVersion = "VER";
    static constexpr std::string_view __speedRequest = "SPE";
    static constexpr std::string_view __forceRequest = "FOR";
    static constexpr std::string_view __printableState = "DRI";
    static constexpr std::string_view __socketSlaveId = "SID";
    static constexpr std::string_view __upgradeFirmware = "UPG";
    static constexpr std::string_view __scanBlockRequest = "SCN_BLOCK";
    static constexpr std::string_view __scanRequest = "SCN";
    static constexpr std::string_view __updateGripperSlaveId = "NID";
    static constexpr std::string_view __muteSerialPort = "MUTE";
    static constexpr std::string_view __commandLoopThrottleSpeed = "THROTTLE";
    static constexpr std::string_view __bootloaderMode = "BLD";

public slots:
    void onClientSocketConnection(ClientConnection *client);
    void onClientSocketDisconnect(ClientConnection *client);
    void onClientSocketReadData(ClientConnection *client);
    /// Answers every request that is complete in the client's buffer, with the gripper that the
    /// client has selected when this call begins.
    void processSocket(ClientConnection *client);

private:
    friend class tst_Server;

    /// What is left to do for a client: a request that waits for its turn, if any, then those in
    /// the client's buffer; with the gripper that all of them address.
    struct Batch
    {
        ClientConnection *client;
        Gripper gripper;
        std::optional<Request> request;
    };

    /// What a client has sent.
    struct Input
    {
        FirstLine firstLine;
        RequestScanner requests;
    };

    void readBatch(ClientConnection *client);
    static void refuse(ClientConnection *client, FirstLine::Protocol protocol);
    void carryOutBatch(const Batch &batch, std::size_t share);
    void carryOutBuffered(ClientConnection *client, const Gripper &gripper, std::size_t share);
    bool prepareToWait(ClientConnection *client, bool hasWaited);
    static void leave(const Batch &batch, QQueue<Batch> &queue);
    static Batch take(QQueue<Batch> &queue);
    void continueUnfinishedLater();
    void continueUnfinished();
    void carryOut(ClientConnection *client, const Request &request, const Gripper &gripper);
    bool mustBePostponed(const Request &request, const Gripper &gripper) const;
    void resumePostponedLater();
    void resumePostponed();

    ClientListener *tcpServer;
    QVector<ClientConnection *> clientSockets;
    QMap<ClientConnection *, Input> bufferBySocket;
    QMap<ClientConnection *, int> slaveIdBySocket;
    QHostAddress listenAddress;
    GripperList gripperList;
    ModbusConstraintsFactory constraintsFactory;
    QQueue<Batch> m_unfinished; ///< Their first requests have been carried out.
    bool m_continuationPosted = false;
    QQueue<Batch> m_postponed; ///< Their first request would have nested too deep.
    unsigned int m_waits = 0;  ///< Pairs that may have waited, ever.
    int m_depth = 0;           ///< Batches on the stack: all but the innermost wait on the bus.
    bool m_resuming = false;   ///< A postponed request is one of them.
};
