#include "server.h"

#include "clientconnection.h"
#include "clientlistener.h"
#include "getvariables.h"
#include "pairreader.h"
#include "quitsignals.h"
#include "setvariables.h"
#include "unhandledpairs.h"
#include "waits.h"

#include <QDebug>

#include <array>
#include <csignal>

namespace {

// One read is one batch. A full read continues to the end of its last line, up to `lineRest` bytes.
constexpr std::size_t bytesPerRead = std::size_t(16) * 1024;
constexpr std::size_t lineRest = 64;
constexpr int firstSlaveId = GripperList::__max_slave_id;

void write(ClientConnection *client, std::string_view reply)
{
    if (client != nullptr)
        client->addReply(reply);
}

/// Reads the rest of the line that began before `rest`, at most `lineRest` bytes, and returns its
/// length. If the line ending of a GET came with the next read, the reply would have no line
/// ending.
std::size_t readToLineEnd(ClientConnection *client, char *rest)
{
    const auto isLineEnd = [](char c) { return c == '\n' || c == '\r'; };
    char *end = rest;
    while (end < rest + lineRest && !isLineEnd(end[-1]) && client->read(end, 1) == 1)
        ++end;
    return static_cast<std::size_t>(end - rest);
}

/// Call before a pair that may wait on the bus or block. Sends the replies to earlier requests. If
/// an earlier pair of the request may have waited, gives all other clients and the state loop a
/// turn. Returns false if the daemon quits: then do not begin the pair.
bool prepareToWait(ClientConnection *client, bool hasWaited)
{
    if (client != nullptr)
        client->sendReplies();
    if (hasWaited)
        qSleepWhileProcessingEvents(0);
    return !quitRequested();
}

} // namespace

Server::Server()
    : tcpServer(new ClientListener(this))
    , listenAddress(QHostAddress::Any)
    , gripperList(constraintsFactory, nullptr)
    , m_turns(*this)
{
    const QVector<int> quitSignals{SIGQUIT, SIGINT, SIGTERM, SIGHUP};
    // Block quit signals until their handler is installed: one may arrive as soon as the port is
    // open.
    const HeldSignals held(quitSignals);
    if (!tcpServer->listenOn(__port))
        qFatal("%s",
               qPrintable(QStringLiteral("Unable to start the server on port %1").arg(__port)));
    catchUnixSignals(quitSignals, {});
    connect(tcpServer, &ClientListener::newConnection, this, &Server::onClientSocketConnection);
}

Server::~Server() = default;

void Server::catchUnixSignals(const QVector<int> &quitSignals, const QVector<int> &ignoreSignals)
{
    for (const int signalNumber : ignoreSignals)
        ::signal(signalNumber, SIG_IGN);
    quitOnSignals(quitSignals);
}

void Server::onClientSocketConnection(ClientConnection *client)
{
    clientSockets.append(client);
    bufferBySocket.insert(client, Input());
    slaveIdBySocket.insert(client, firstSlaveId);
    connect(client, &ClientConnection::readable, this,
            [this, client] { onClientSocketReadData(client); });
    connect(client, &ClientConnection::ended, this,
            [this, client] { onClientSocketDisconnect(client); });
    qInfo() << "onClientSocketConnection: " << client;
}

void Server::onClientSocketReadData(ClientConnection *client)
{
    // readToLineEnd() may find the end of the client's side before the batch is processed. The
    // client must outlive the batch.
    client->hold();
    readBatch(client);
    client->release();
}

void Server::readBatch(ClientConnection *client)
{
    // append() copies the bytes before anything pumps events, so a nested call may use the array.
    static std::array<char, bytesPerRead + lineRest> bytes;
    std::size_t count = client->read(bytes.data(), bytesPerRead);
    if (count == 0)
        return;
    if (count == bytesPerRead)
        count += readToLineEnd(client, bytes.data() + bytesPerRead);
    const std::string_view received(bytes.data(), count);
    Input &input = bufferBySocket[client];
    // Check this read before its requests are processed. While the first line is undecided, earlier
    // reads contained no complete SET: a SET needs a line ending, and a line ending decides.
    const FirstLine::Protocol protocol = input.firstLine.read(received);
    if (protocol == FirstLine::Protocol::Http || protocol == FirstLine::Protocol::Tls) {
        refuse(client, protocol);
        return;
    }
    input.requests.append(received.data(), received.size());
    processSocket(client);
}

void Server::refuse(ClientConnection *client, FirstLine::Protocol protocol)
{
    qInfo() << "Closed" << client << "because it began with"
            << (protocol == FirstLine::Protocol::Http ? "an HTTP request." : "a TLS handshake.")
            << "This port does not serve web browsers.";
    client->drop();
}

void Server::processSocket(ClientConnection *client)
{
    const Gripper gripper =
        gripperList.getGripperFromSlaveId(static_cast<quint8>(slaveIdBySocket[client]));
    m_turns.start({client, &bufferBySocket[client].requests, gripper, std::nullopt});
}

/// A GET never waits in practice: the list holds only grippers whose identity it has read.
bool Server::mayWait(const Request &request, const Gripper &gripper) const
{
    if (request.kind == Request::Kind::Get)
        return false;
    PairReader pairs(request.text);
    PairReader::Pair pair;
    while (pairs.next(pair)) {
        const SetVariable *variable = findSetVariable(pair.name);
        if (variable != nullptr && variable->mayWait && (gripper || !variable->needsGripper))
            return true;
    }
    return false;
}

/// During a jump, a request could send bytes between the reset and the search for the bootloader. A
/// ROM bootloader detects its baud rate by the first byte.
bool Server::mayNest() const
{
    return !gripperList.isJumpRunning();
}

bool Server::processRequest(ClientConnection *client, const Request &request,
                            const Gripper &gripper)
{
    if (request.kind == Request::Kind::Set)
        return decodeSetVariables(client, request, gripper);
    decodeGetVariables(client, request, gripper);
    return false;
}

void Server::decodeGetVariables(ClientConnection *client, const Request &request,
                                const Gripper &gripper)
{
    const std::string_view name = request.variable();
    if (name.empty())
        return;
    // Most replies fit into the string object and need no allocation.
    std::string reply;
    if (request.hasLineEnding)
        reply.append(name).push_back(' ');

    const GetVariable *variable = findGetVariable(name);
    if (variable == nullptr || (variable->needsGripper() && !gripper)) {
        reply.push_back('?');
    } else {
        if (variable->mayWait() && client != nullptr)
            client->sendReplies();
        variable->appendValue({gripperList, gripper.data()}, reply);
    }

    if (request.hasLineEnding)
        reply.push_back('\n');
    write(client, reply);
}

bool Server::decodeSetVariables(ClientConnection *client, const Request &request,
                                const Gripper &gripper)
{
    std::string_view reply = __acknowledge;
    int slaveIdWithoutClient = 0;
    const auto selection = slaveIdBySocket.find(client);
    int &selectedSlaveId =
        selection != slaveIdBySocket.end() ? selection.value() : slaveIdWithoutClient;

    bool hasWaited = false;
    UnhandledPairs unhandled(request.text);
    PairReader pairs(request.text);
    PairReader::Pair pair;
    while (pairs.next(pair)) {
        const SetVariable *variable = findSetVariable(pair.name);
        if (variable == nullptr || (variable->needsGripper && !gripper)) {
            unhandled.log();
            continue;
        }
        if (variable->mayWait) {
            const bool mayBegin = prepareToWait(client, hasWaited);
            hasWaited = true;
            if (!mayBegin) {
                reply = __notAcknowledge;
                break;
            }
        }
        // A scan may have replaced the object of the gripper since the batch began.
        const Gripper latest = gripper ? gripperList.latest(gripper) : gripper;
        reply = variable->apply({gripperList, latest, selectedSlaveId, pair.value}).value_or(reply);
    }
    write(client, reply);
    return hasWaited;
}

void Server::onClientSocketDisconnect(ClientConnection *client)
{
    qInfo() << "onClientSocketDisconnect: " << client;
    disconnect(client, nullptr, this, nullptr);
    clientSockets.removeOne(client);
    slaveIdBySocket.remove(client);
    bufferBySocket.remove(client);
    client->deleteLater();
    qInfo() << "socket->deleteLater: " << client;
}
