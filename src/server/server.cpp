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

// One read is one batch. Of a long one only the first requests are carried out at once, so that a
// thousand clients that send long ones do not keep the others waiting; the rest follows in shares,
// one client's share on each turn of the event loop. In bytes of requests, as is the time they
// take.
constexpr std::size_t bytesPerRead = 16 * 1024;
constexpr std::size_t lineRest = 64;
constexpr std::size_t firstShare = 256;
constexpr std::size_t laterShare = 4096;
constexpr int firstSlaveId = GripperList::__max_slave_id;

void write(ClientConnection *client, std::string_view reply)
{
    if (client != nullptr)
        client->addReply(reply);
}

/// So that a GET does not lose its line ending to the next batch: of what follows a full read as
/// much as belongs to its last line, `lineRest` bytes at most. Returns how much that was.
std::size_t readToLineEnd(ClientConnection *client, char *rest)
{
    const auto isLineEnd = [](char c) { return c == '\n' || c == '\r'; };
    char *end = rest;
    while (end < rest + lineRest && !isLineEnd(end[-1]) && client->read(end, 1) == 1)
        ++end;
    return static_cast<std::size_t>(end - rest);
}

bool mayWait(const Request &request, const Server::Gripper &gripper)
{
    PairReader pairs(request.text);
    PairReader::Pair pair;
    while (pairs.next(pair)) {
        const SetVariable *variable = findSetVariable(pair.name);
        if (variable != nullptr && variable->mayWait && (gripper || !variable->needsGripper))
            return true;
    }
    return false;
}

} // namespace

Server::Server()
    : tcpServer(new ClientListener(this))
    , listenAddress(QHostAddress::Any)
    , gripperList(constraintsFactory, nullptr)
{
    const QVector<int> quitSignals{SIGQUIT, SIGINT, SIGTERM, SIGHUP};
    // Who sees the port listening may stop the daemon: the signal must find its handler.
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
    // Before the first read: a later one may find the end of the client's side.
    client->hold();
    readBatch(client);
    client->release();
}

void Server::readBatch(ClientConnection *client)
{
    // Used up before anything pumps events, so a nested call may use it again.
    static std::array<char, bytesPerRead + lineRest> bytes;
    std::size_t count = client->read(bytes.data(), bytesPerRead);
    if (count == 0)
        return;
    if (count == bytesPerRead)
        count += readToLineEnd(client, bytes.data() + bytesPerRead);
    const std::string_view received(bytes.data(), count);
    Input &input = bufferBySocket[client];
    // The check comes before anything of this read is carried out. Earlier reads of an undecided
    // line can have carried out GETs only: a SET needs a line ending, and a line ending decides.
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
    carryOutBatch({client, gripper, std::nullopt}, firstShare);
    resumePostponedLater();
}

void Server::carryOutBatch(const Batch &batch, std::size_t share)
{
    // Keeps the client, and with it its entries, until its requests are carried out.
    batch.client->hold();
    ++m_depth;
    if (batch.request)
        carryOut(batch.client, *batch.request, batch.gripper);
    carryOutBuffered(batch.client, batch.gripper, share);
    --m_depth;
    batch.client->release();
}

void Server::carryOutBuffered(ClientConnection *client, const Gripper &gripper, std::size_t share)
{
    RequestScanner &buffer = bufferBySocket[client].requests;
    Request request;
    std::size_t done = 0;
    while (!client->isPaused() && buffer.takeNext(request)) {
        if (mustBePostponed(request, gripper)) {
            leave({client, gripper, request}, m_postponed);
            break;
        }
        const unsigned int waitsBefore = m_waits;
        carryOut(client, request, gripper);
        // What waits, or blocks, is a share of its own.
        done += m_waits == waitsBefore ? request.text.size() : share;
        if (done >= share && buffer.bytesKept() > 0 && !client->isPaused()) {
            leave({client, gripper, std::nullopt}, m_unfinished);
            continueUnfinishedLater();
        }
    }
    client->sendReplies();
}

/// What was answered before must not wait for what may wait, or block, now; and of several such
/// pairs in one request each leaves everybody else, the state loop too, a turn before the next.
/// False when nothing is to be begun any more because the daemon ends.
bool Server::prepareToWait(ClientConnection *client, bool hasWaited)
{
    ++m_waits;
    if (client != nullptr)
        client->sendReplies();
    if (hasWaited)
        qSleepWhileProcessingEvents(0);
    return !quitRequested();
}

/// Until it is taken, nothing else of its client is carried out, and the client stays.
void Server::leave(const Batch &batch, QQueue<Batch> &queue)
{
    batch.client->hold();
    batch.client->pause();
    queue.enqueue(batch);
}

/// Its client is held still.
Server::Batch Server::take(QQueue<Batch> &queue)
{
    Batch batch = queue.dequeue();
    batch.client->resume();
    return batch;
}

/// Posted events that are posted meanwhile come on the next turn: sockets and timers are in
/// between.
void Server::continueUnfinishedLater()
{
    if (m_continuationPosted || m_unfinished.isEmpty())
        return;
    m_continuationPosted = true;
    QMetaObject::invokeMethod(this, &Server::continueUnfinished, Qt::QueuedConnection);
}

void Server::continueUnfinished()
{
    m_continuationPosted = false;
    const Batch next = take(m_unfinished);
    // Also when this one waits on the bus.
    continueUnfinishedLater();
    carryOutBatch(next, laterShare);
    next.client->release();
    resumePostponedLater();
}

void Server::carryOut(ClientConnection *client, const Request &request, const Gripper &gripper)
{
    if (request.kind == Request::Kind::Set)
        decodeSetVariables(client, request, gripper);
    else
        decodeGetVariables(client, request, gripper);
}

/// A GET never has to be: what it would ask the device for is known of every gripper in the list.
bool Server::mustBePostponed(const Request &request, const Gripper &gripper) const
{
    if (m_depth <= __nestingLimit && m_postponed.isEmpty())
        return false;
    return request.kind == Request::Kind::Set && mayWait(request, gripper);
}

/// From the event loop, which is that of the next outer wait: the stack has become shorter by then.
void Server::resumePostponedLater()
{
    if (!m_postponed.isEmpty() && !m_resuming && m_depth < __nestingLimit)
        QMetaObject::invokeMethod(this, &Server::resumePostponed, Qt::QueuedConnection);
}

void Server::resumePostponed()
{
    if (m_postponed.isEmpty() || m_resuming || m_depth >= __nestingLimit)
        return;
    // One after the other, so that their replies come in order too.
    m_resuming = true;
    const Batch next = take(m_postponed);
    carryOutBatch(next, firstShare);
    m_resuming = false;
    next.client->release();
    resumePostponedLater();
}

void Server::decodeGetVariables(ClientConnection *client, const Request &match,
                                const Gripper &gripper)
{
    const std::string_view name = match.variable();
    if (name.empty())
        return;
    // An ordinary one fits into the object itself.
    std::string reply;
    if (match.hasLineEnding)
        reply.append(name).push_back(' ');

    const GetVariable *variable = findGetVariable(name);
    if (variable == nullptr || (variable->needsGripper() && !gripper)) {
        reply.push_back('?');
    } else {
        if (variable->mayWait() && client != nullptr)
            client->sendReplies();
        variable->appendValue({gripperList, gripper.data()}, reply);
    }

    if (match.hasLineEnding)
        reply.push_back('\n');
    write(client, reply);
}

void Server::decodeSetVariables(ClientConnection *client, const Request &match,
                                const Gripper &gripper)
{
    std::string_view reply = __acknowledge;
    int nobodysSlaveId = 0;
    const auto selection = slaveIdBySocket.find(client);
    int &selectedSlaveId = selection != slaveIdBySocket.end() ? selection.value() : nobodysSlaveId;

    bool hasWaited = false;
    UnhandledPairs unhandled(match.text);
    PairReader pairs(match.text);
    PairReader::Pair pair;
    while (pairs.next(pair)) {
        const SetVariable *variable = findSetVariable(pair.name);
        if (variable == nullptr || (variable->needsGripper && !gripper)) {
            unhandled.log();
            continue;
        }
        if (variable->mayWait && !prepareToWait(client, hasWaited)) {
            reply = __notAcknowledge;
            break;
        }
        hasWaited = hasWaited || variable->mayWait;
        reply =
            variable->apply({gripperList, gripper, selectedSlaveId, pair.value}).value_or(reply);
    }
    write(client, reply);
}

std::string_view Server::handleSetGripperModeRequest(const Gripper &gripper, quint8 mode)
{
    switch (mode) {
    case 0:
        gripper->setGripperModeManual();
        return __acknowledge;
    case 1:
        gripper->setGripperModeAutomatic();
        return __acknowledge;
    default:
        return __notAcknowledge;
    }
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
