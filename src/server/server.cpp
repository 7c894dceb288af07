#include "server.h"

#include "clientlistener.h"
#include "clientsocket.h"
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
constexpr int bytesPerRead = 16 * 1024;
constexpr int lineRest = 64;
constexpr std::size_t firstShare = 256;
constexpr std::size_t laterShare = 4096;
constexpr int firstSlaveId = GripperList::__max_slave_id;

void write(ClientSocket *socket, std::string_view reply)
{
    if (socket != nullptr)
        socket->addReply(reply);
}

/// So that a GET does not lose its line ending to the next batch: of what follows a full read as
/// much as belongs to its last line, `lineRest` bytes at most. Returns how much that was.
int readToLineEnd(ClientSocket *socket, char *rest)
{
    const auto isLineEnd = [](char c) { return c == '\n' || c == '\r'; };
    int count = 0;
    while (count < lineRest && !isLineEnd(rest[count - 1]) && socket->read(rest + count, 1) == 1)
        ++count;
    return count;
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
    connect(tcpServer, &QTcpServer::newConnection, this, &Server::onClientSocketConnection);
}

Server::~Server() = default;

void Server::catchUnixSignals(const QVector<int> &quitSignals, const QVector<int> &ignoreSignals)
{
    for (const int signalNumber : ignoreSignals)
        ::signal(signalNumber, SIG_IGN);
    quitOnSignals(quitSignals);
}

void Server::onClientSocketConnection()
{
    auto *socket = static_cast<ClientSocket *>(tcpServer->nextPendingConnection());
    if (socket == nullptr)
        return;
    clientSockets.append(socket);
    bufferBySocket.insert(socket, Input());
    slaveIdBySocket.insert(socket, firstSlaveId);
    connect(socket, &QTcpSocket::readyRead, this, &Server::onClientSocketReadData);
    connect(socket, &QTcpSocket::disconnected, this, &Server::onClientSocketDisconnect);
    qInfo() << "onClientSocketConnection: " << socket;
}

void Server::onClientSocketReadData()
{
    ClientSocket *socket = ClientSocket::notifying();
    if (socket == nullptr)
        return;
    // From the first read on: what the next one finds may be the end.
    socket->hold();
    readBatch(socket);
    socket->release();
}

void Server::readBatch(ClientSocket *socket)
{
    // Used up before anything pumps events, so a nested call may use it again.
    static std::array<char, bytesPerRead + lineRest> bytes;
    qint64 count = socket->read(bytes.data(), bytesPerRead);
    if (count <= 0)
        return;
    if (count == bytesPerRead)
        count += readToLineEnd(socket, bytes.data() + bytesPerRead);
    const std::string_view received(bytes.data(), static_cast<std::size_t>(count));
    Input &input = bufferBySocket[socket];
    // The check comes before anything of this read is carried out. Earlier reads of an undecided
    // line can have carried out GETs only: a SET needs a line ending, and a line ending decides.
    const FirstLine::Protocol protocol = input.firstLine.read(received);
    if (protocol == FirstLine::Protocol::Http || protocol == FirstLine::Protocol::Tls) {
        refuse(socket, protocol);
        return;
    }
    input.requests.append(received.data(), received.size());
    processSocket(socket);
}

void Server::refuse(ClientSocket *socket, FirstLine::Protocol protocol)
{
    qInfo() << "Closed" << socket << "because it began with"
            << (protocol == FirstLine::Protocol::Http ? "an HTTP request." : "a TLS handshake.")
            << "This port does not serve web browsers.";
    socket->giveUp();
}

void Server::processSocket(ClientSocket *socket)
{
    const Gripper gripper =
        gripperList.getGripperFromSlaveId(static_cast<quint8>(slaveIdBySocket[socket]));
    carryOutBatch({socket, gripper, std::nullopt}, firstShare);
    resumePostponedLater();
}

void Server::carryOutBatch(const Batch &batch, std::size_t share)
{
    // Keeps the client, and with it its entries, until its requests are carried out.
    batch.socket->hold();
    ++m_depth;
    if (batch.request)
        carryOut(batch.socket, *batch.request, batch.gripper);
    carryOutBuffered(batch.socket, batch.gripper, share);
    --m_depth;
    batch.socket->release();
}

void Server::carryOutBuffered(ClientSocket *socket, const Gripper &gripper, std::size_t share)
{
    RequestScanner &buffer = bufferBySocket[socket].requests;
    Request request;
    std::size_t done = 0;
    while (!socket->isPaused() && buffer.takeNext(request)) {
        if (mustBePostponed(request, gripper)) {
            leave({socket, gripper, request}, m_postponed);
            break;
        }
        const unsigned int waitsBefore = m_waits;
        carryOut(socket, request, gripper);
        // What waits, or blocks, is a share of its own.
        done += m_waits == waitsBefore ? request.text.size() : share;
        if (done >= share && buffer.bytesKept() > 0 && !socket->isPaused()) {
            leave({socket, gripper, std::nullopt}, m_unfinished);
            continueUnfinishedLater();
        }
    }
    socket->sendReplies();
}

/// What was answered before must not wait for what may wait, or block, now; and of several such
/// pairs in one request each leaves everybody else, the state loop too, a turn before the next.
/// False when nothing is to be begun any more because the daemon ends.
bool Server::prepareToWait(ClientSocket *socket, bool hasWaited)
{
    ++m_waits;
    if (socket != nullptr)
        socket->sendReplies();
    if (hasWaited)
        qSleepWhileProcessingEvents(0);
    return !quitRequested();
}

/// Until it is taken, nothing else of its client is carried out, and the client stays.
void Server::leave(const Batch &batch, QQueue<Batch> &queue)
{
    batch.socket->hold();
    batch.socket->setPaused(true);
    queue.enqueue(batch);
}

/// Its client is held still.
Server::Batch Server::take(QQueue<Batch> &queue)
{
    Batch batch = queue.dequeue();
    batch.socket->setPaused(false);
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
    next.socket->release();
    resumePostponedLater();
}

void Server::carryOut(ClientSocket *socket, const Request &request, const Gripper &gripper)
{
    if (request.kind == Request::Kind::Set)
        decodeSetVariables(socket, request, gripper);
    else
        decodeGetVariables(socket, request, gripper);
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
    next.socket->release();
    resumePostponedLater();
}

void Server::decodeGetVariables(ClientSocket *socket, const Request &match, const Gripper &gripper)
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
        if (variable->mayWait() && socket != nullptr)
            socket->sendReplies();
        variable->appendValue({gripperList, gripper.data()}, reply);
    }

    if (match.hasLineEnding)
        reply.push_back('\n');
    write(socket, reply);
}

void Server::decodeSetVariables(ClientSocket *socket, const Request &match, const Gripper &gripper)
{
    std::string_view reply = __acknowledge;
    int nobodysSlaveId = 0;
    const auto selection = slaveIdBySocket.find(socket);
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
        if (variable->mayWait && !prepareToWait(socket, hasWaited)) {
            reply = __notAcknowledge;
            break;
        }
        hasWaited = hasWaited || variable->mayWait;
        reply =
            variable->apply({gripperList, gripper, selectedSlaveId, pair.value}).value_or(reply);
    }
    write(socket, reply);
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

void Server::onClientSocketDisconnect()
{
    ClientSocket *socket = ClientSocket::notifying();
    qInfo() << "onClientSocketDisconnect: " << (socket != nullptr ? socket : sender());
    if (socket == nullptr)
        return;
    disconnect(socket, nullptr, this, nullptr);
    clientSockets.removeOne(socket);
    slaveIdBySocket.remove(socket);
    bufferBySocket.remove(socket);
    socket->deleteLater();
    qInfo() << "socket->deleteLater: " << socket;
}
