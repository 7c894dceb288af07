#include "server.h"

#include "clientconnection.h"
#include "clientend.h"
#include "clientlistener.h"
#include "logcapture.h"
#include "simulatedline.h"

#include <QPointer>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

#include <csignal>
#include <functional>
#include <memory>
#include <vector>

namespace {

constexpr quint16 port = 63352;
const QByteArray lastReply("ZZZ ?\n");

using Departure = void (ClientEnd::*)();

Request requestOf(const QByteArray &text)
{
    RequestScanner scanner;
    scanner.append(text.constData(), static_cast<std::size_t>(text.size()));
    Request request;
    scanner.takeNext(request);
    return request;
}

QByteArray nameOfRow()
{
    return QByteArray(QTest::currentDataTag()).split(' ').first();
}

} // namespace

Q_DECLARE_METATYPE(Departure)

/// One server for all tests, in a network of its own. Its list does not poll; it has found the
/// grippers 2, at position 100, and 9, at position 200. There is none at 7.
class tst_Server : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void listensOnItsPort();
    void quitSignalsAreCaughtAndOthersAreNot();
    void ignoredSignalIsIgnored();

    void newClientAddressesNineAndHasAnEmptyBuffer();
    void clientsAreKeptInTheOrderInWhichTheyCame();
    void disconnectedClientLeavesNothingBehind();
    void comingAndGoingIsLogged();

    void getWithoutLineEndingIsAnsweredAtOnceWithTheBareValue();
    void leftoverLineEndingsDoNotDisturbLaterRequests();
    void setWaitsForItsLineEnding();
    void requestsInOnePacketAreAnsweredInOrder();
    void requestInTwoPacketsIsAnsweredOnceItIsComplete();
    void textIsCutIntoRequests_data();
    void textIsCutIntoRequests();
    void bytesBehindAZeroByteAreDroppedUntilTheNextRead();
    void clientsDoNotShareTheirBuffers();

    void foreignProtocolIsRefused_data();
    void foreignProtocolIsRefused();
    void otherFirstLinesAreServed_data();
    void otherFirstLinesAreServed();
    void firstLineIsServedUntilItIsDecided();
    void refusedClientGetsNoReply();
    void httpBehindTheFirstLineIsServed();

    void selectionAppliesFromTheNextBatch();
    void selectionWithoutAGripperIsKept();
    void eachClientHasItsOwnSelection();
    void slaveIdIsNarrowedToEightBits();

    void getVariableIsAnswered_data();
    void getVariableIsAnswered();
    void getVariableWithoutAGripperIsAnswered_data();
    void getVariableWithoutAGripperIsAnswered();
    void longNameIsAnsweredByItsFirstThreeCharacters();
    void setVariableIsAnswered_data();
    void setVariableIsAnswered();
    void setVariableWithoutAGripperIsAnswered_data();
    void setVariableWithoutAGripperIsAnswered();
    void setIsAnsweredOnceWithoutALineEnding_data();
    void setIsAnsweredOnceWithoutALineEnding();
    void setAppliesItsPairsFromLeftToRight();
    void setTakesTheLowByteOfAValue_data();
    void setTakesTheLowByteOfAValue();
    void unhandledPairIsLogged_data();
    void unhandledPairIsLogged();
    void requestsWithoutAClientAreCarriedOutSilently();
    void emptyMatchIsNotAnswered();

    void requestMayWaitIfOneOfItsPairsDoes_data();
    void requestMayWaitIfOneOfItsPairsDoes();
    void requestOfTheSameClientIsAnsweredDuringItsScan();
    void requestOfAnotherClientIsAnsweredDuringAScan();
    void repliesInFrontOfAScanLeaveBeforeIt();
    void requestsBehindAScanAreAnsweredAfterIt();
    void newRequestDuringAScanTakesThoseInFrontAlong();
    void scansNest();
    void clientMayVanishDuringItsScan_data();
    void clientMayVanishDuringItsScan();
    void otherClientMayVanishDuringAScan();
    void clientsMayVanishDuringNestedScans();
    void halfClosedClientGetsTheReplyToItsScan();
    void requestsOfAClientThatClosesAtOnceAreCarriedOut_data();
    void requestsOfAClientThatClosesAtOnceAreCarriedOut();
    void endBehindAFullReadIsNoEarlierThanItsRequests_data();
    void endBehindAFullReadIsNoEarlierThanItsRequests();
    void endBehindAFullReadCostsNoReplies_data();
    void endBehindAFullReadCostsNoReplies();

    void longBatchIsAnsweredInOrderAndFromOneGripper();

    void clientThatDoesNotReadIsNotReadEither();

private:
    ClientEnd &connectClient();
    ClientEnd &adoptLocalClient();
    ClientConnection *socketOf(int client) { return m_server->clientSockets.at(client); }
    QByteArray answerTo(ClientEnd &client, const QByteArray &request);
    static void sendAsOneRead(ClientEnd &client, const QByteArray &packet);
    void selectNobody(ClientEnd &client);
    void onNextFrame(const std::function<void()> &action);
    bool isClientless() const;
    quint8 positionRequest() const { return m_gripper->getPositionRequest(); }

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<SimulatedLine> m_line;
    std::unique_ptr<Server> m_server;
    std::vector<std::unique_ptr<ClientEnd>> m_clients;
    Server::Gripper m_gripper;
};

void tst_Server::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
    m_line = std::make_unique<SimulatedLine>(
        std::initializer_list<SimulatedLine::Gripper>{{2, "TE1-2.0.2"}, {9, "TA3-1.6.14"}});
    m_line->bus().pinRegister(2, 2002, 0x6400);
    m_line->bus().pinRegister(9, 2000, 0x7D02);
    m_line->bus().pinRegister(9, 2001, 0x0507);
    m_line->bus().pinRegister(9, 2002, 0xC821);
    m_server = std::make_unique<Server>();
    // Nobody leaves the firmware: upgrades and jumps fail.
    sim::Fault deaf;
    deaf.kind = sim::FaultKind::Deaf;
    deaf.scope = sim::Fault::Scope::StartAddress;
    deaf.address = 400;
    for (const quint8 slaveId : {quint8{2}, quint8{9}})
        m_line->bus().setFault(slaveId, deaf);
    m_server->gripperList.setMuted(true);
    m_server->gripperList.scan(m_line->path());
    QCOMPARE(m_server->gripperList.getDiscoveredSlaveIds(), (QVector<quint8>{2, 9}));
}

void tst_Server::init()
{
    // A test may have moved a gripper or ended with the link closed.
    if (m_server->gripperList.getDiscoveredSlaveIds() != QVector<quint8>{2, 9})
        m_server->gripperList.scan(m_line->path());
    m_gripper = m_server->gripperList.getGripperFromSlaveId(9);
    QVERIFY(m_gripper);
    m_gripper->setPositionRequest(0);
    m_line->clearTraffic();
    m_log->clear();
}

void tst_Server::cleanup()
{
    m_clients.clear();
    QTRY_VERIFY(isClientless());
    QVERIFY(m_server->tcpServer->findChildren<ClientConnection *>().isEmpty());
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_Server::cleanupTestCase()
{
    m_gripper.reset();
    m_server.reset();
    m_log.reset();
}

bool tst_Server::isClientless() const
{
    return m_server->clientSockets.isEmpty() && m_server->bufferBySocket.isEmpty() &&
           m_server->slaveIdBySocket.isEmpty();
}

ClientEnd &tst_Server::connectClient()
{
    const int before = m_server->clientSockets.size();
    m_clients.push_back(std::make_unique<ClientEnd>(ClientEnd::connectTo(port)));
    [&] { QTRY_COMPARE(m_server->clientSockets.size(), before + 1); }();
    return *m_clients.back();
}

// A connection that holds little on its way, where a TCP connection would take megabytes.
ClientEnd &tst_Server::adoptLocalClient()
{
    const DescriptorPair ends = localPair();
    m_server->tcpServer->addConnection(ends.serverEnd);
    m_clients.push_back(std::make_unique<ClientEnd>(ends.clientEnd));
    return *m_clients.back();
}

// Everything that is answered, and nothing that belongs to another request.
QByteArray tst_Server::answerTo(ClientEnd &client, const QByteArray &request)
{
    client.take();
    client.send(request);
    [&] { QTRY_VERIFY(!client.received().isEmpty()); }();
    client.send("GET ZZZ\n");
    [&] { QTRY_VERIFY(client.received().endsWith(lastReply)); }();
    QByteArray answer = client.take();
    answer.chop(lastReply.size());
    return answer;
}

// What is sent later comes with another read.
void tst_Server::sendAsOneRead(ClientEnd &client, const QByteArray &packet)
{
    client.send(packet);
    QCoreApplication::processEvents();
}

void tst_Server::selectNobody(ClientEnd &client)
{
    QCOMPARE(answerTo(client, "SET SID 7\n"), QByteArray("nak"));
    m_log->clear();
}

// What waits for the line runs inside the test's own wait, so the test acts from inside as well.
void tst_Server::onNextFrame(const std::function<void()> &action)
{
    const auto connection = std::make_shared<QMetaObject::Connection>();
    *connection =
        connect(&m_line->bus(), &sim::BusSimulator::frameSeen, this, [this, connection, action] {
            disconnect(*connection);
            QTimer::singleShot(0, this, action);
        });
}

void tst_Server::listensOnItsPort()
{
    QCOMPARE(Server::__port, port);
    QCOMPARE(m_server->tcpServer->port(), port);
    QCOMPARE(m_server->tcpServer->parent(), m_server.get());
}

void tst_Server::quitSignalsAreCaughtAndOthersAreNot()
{
    const auto isCaught = [](int signalNumber) {
        struct sigaction action
        {
        };
        ::sigaction(signalNumber, nullptr, &action);
        return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
    };
    for (const int signalNumber : {SIGQUIT, SIGINT, SIGTERM, SIGHUP})
        QVERIFY(isCaught(signalNumber));
    for (const int signalNumber : {SIGUSR1, SIGUSR2, SIGCHLD, SIGALRM})
        QVERIFY(!isCaught(signalNumber));
}

void tst_Server::ignoredSignalIsIgnored()
{
    m_server->catchUnixSignals({}, {SIGUSR2});
    QCOMPARE(::raise(SIGUSR2), 0);
    struct sigaction action
    {
    };
    ::sigaction(SIGUSR2, nullptr, &action);
    QVERIFY(action.sa_handler == SIG_IGN);
    ::signal(SIGUSR2, SIG_DFL);
}

void tst_Server::newClientAddressesNineAndHasAnEmptyBuffer()
{
    ClientEnd &client = connectClient();
    QCOMPARE(m_server->slaveIdBySocket.value(socketOf(0)), 9);
    QCOMPARE(m_server->bufferBySocket[socketOf(0)].requests.bytesKept(), std::size_t{0});
    QCOMPARE(answerTo(client, "GET POS\n"), QByteArray("POS 200\n"));
}

void tst_Server::clientsAreKeptInTheOrderInWhichTheyCame()
{
    for (int i = 0; i < 3; ++i)
        connectClient();
    const QVector<ClientConnection *> sockets = m_server->clientSockets;
    m_clients[1].reset();
    QTRY_COMPARE(m_server->clientSockets.size(), 2);
    QCOMPARE(m_server->clientSockets, (QVector<ClientConnection *>{sockets[0], sockets[2]}));
    QCOMPARE(m_server->slaveIdBySocket.keys().size(), 2);
    QVERIFY(!m_server->slaveIdBySocket.contains(sockets[1]));
    QVERIFY(!m_server->bufferBySocket.contains(sockets[1]));
}

void tst_Server::disconnectedClientLeavesNothingBehind()
{
    ClientEnd &client = connectClient();
    const QPointer<ClientConnection> socket(socketOf(0));
    client.send("SET POS 1 GTO 1");
    QTRY_VERIFY(m_server->bufferBySocket[socketOf(0)].requests.bytesKept() > 0);
    client.close();
    QTRY_VERIFY(isClientless());
    QTRY_VERIFY(socket.isNull());
    QCOMPARE(positionRequest(), quint8{0});
}

void tst_Server::comingAndGoingIsLogged()
{
    connectClient().close();
    QTRY_VERIFY(isClientless());
    QCOMPARE(m_log->infos().size(), 3);
    const QStringList texts{QStringLiteral("onClientSocketConnection: "),
                            QStringLiteral("onClientSocketDisconnect: "),
                            QStringLiteral("socket->deleteLater: ")};
    for (int i = 0; i < texts.size(); ++i) {
        const QRegularExpression line(texts[i] + QStringLiteral(" QTcpSocket\\(0x[0-9a-f]+\\)"));
        QVERIFY2(line.match(m_log->infos().at(i)).capturedLength() == m_log->infos().at(i).size(),
                 qPrintable(m_log->infos().at(i)));
    }
}

void tst_Server::getWithoutLineEndingIsAnsweredAtOnceWithTheBareValue()
{
    ClientEnd &client = connectClient();
    client.send("GET POS");
    QTRY_COMPARE(client.received(), QByteArray("200"));
}

void tst_Server::leftoverLineEndingsDoNotDisturbLaterRequests()
{
    ClientEnd &client = connectClient();
    client.send("GET POS");
    QTRY_COMPARE(client.received(), QByteArray("200"));
    client.send("\r\n");
    QCOMPARE(answerTo(client, "GET STA\r\n"), QByteArray("STA 3\n"));
    QCOMPARE(answerTo(client, "\n\r\n SET POS 5\n"), QByteArray("ack"));
}

void tst_Server::setWaitsForItsLineEnding()
{
    ClientEnd &client = connectClient();
    client.send("SET POS 100");
    QTRY_VERIFY(m_server->bufferBySocket[socketOf(0)].requests.bytesKept() == 11);
    QCOMPARE(client.received(), QByteArray());
    QCOMPARE(positionRequest(), quint8{0});
    client.send("\r");
    QTRY_COMPARE(client.received(), QByteArray("ack"));
    QCOMPARE(positionRequest(), quint8{100});
}

void tst_Server::requestsInOnePacketAreAnsweredInOrder()
{
    ClientEnd &client = connectClient();
    QCOMPARE(answerTo(client, "GET STA\nGET POS\nSET POS 3\nGET FLT\nSET MOD 2\nGET PRE\n"),
             QByteArray("STA 3\nPOS 200\nackFLT 05\nnakPRE 007\n"));
}

void tst_Server::requestInTwoPacketsIsAnsweredOnceItIsComplete()
{
    ClientEnd &client = connectClient();
    client.send("GET P");
    QTRY_VERIFY(m_server->bufferBySocket[socketOf(0)].requests.bytesKept() == 5);
    QCOMPARE(client.received(), QByteArray());
    QCOMPARE(answerTo(client, "OS\n"), QByteArray("POS 200\n"));
}

void tst_Server::textIsCutIntoRequests_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<QByteArray>("answer");

    const auto row = [](const char *name, const char *text, const char *answer) {
        QTest::newRow(name) << QByteArray(text) << QByteArray(answer);
    };
    row("text in front is dropped", "xyzGET STA\n", "STA 3\n");
    row("lower case", "get pos\r\n", "POS 200\n");
    row("two spaces behind GET", "GET  POS\nGET STA\n", "STA 3\n");
    row("spaces behind SET", "SET    POS    7   \n", "ack");
    row("spaces behind the name", "GET POS   \n", "POS 200\n");
    row("several line endings", "GET POS\r\n\n\r\nGET STA\n", "POS 200\nSTA 3\n");
    row("without line endings", "GET POSGET STA", "2003");
    row("SET without a name", "SET\nSET \nSET PO 1\nGET STA\n", "STA 3\n");
    row("GET as a name of a SET", "SET POS 1 GET STA\n", "ack");
}

void tst_Server::textIsCutIntoRequests()
{
    QFETCH(QByteArray, text);
    QTEST(answerTo(connectClient(), text), "answer");
}

void tst_Server::bytesBehindAZeroByteAreDroppedUntilTheNextRead()
{
    ClientEnd &client = connectClient();
    client.send(QByteArray("GET POS\n\0GET STA\n", 17));
    QTRY_COMPARE(client.received(), QByteArray("POS 200\n"));
    QCOMPARE(answerTo(client, "GET FLT\n"), QByteArray("FLT 05\n"));
}

void tst_Server::clientsDoNotShareTheirBuffers()
{
    ClientEnd &first = connectClient();
    ClientEnd &second = connectClient();
    first.send("GET P");
    second.send("GET S");
    QTRY_VERIFY(m_server->bufferBySocket[socketOf(1)].requests.bytesKept() == 5);
    QCOMPARE(answerTo(first, "OS\n"), QByteArray("POS 200\n"));
    QCOMPARE(answerTo(second, "TA\n"), QByteArray("STA 3\n"));
}

void tst_Server::foreignProtocolIsRefused_data()
{
    QTest::addColumn<QList<QByteArray>>("packets");
    QTest::addColumn<QString>("protocol");

    const QString http = QStringLiteral("an HTTP request.");
    const QString tls = QStringLiteral("a TLS handshake.");
    const QByteArray body = "\r\n\r\nSET POS 114 SPE 255 FOR 255 GTO 1\n";
    QTest::newRow("head and body")
        << QList<QByteArray>{"POST / HTTP/1.1\r\nHost: a" + body} << http;
    QTest::newRow("head, then body")
        << QList<QByteArray>{"POST / HTTP/1.1\r\nHost: a\r\n", body} << http;
    QTest::newRow("version in two packets")
        << QList<QByteArray>{"POST / HTTP/1", ".1\r\nHost: a" + body} << http;
    QTest::newRow("line ending by itself")
        << QList<QByteArray>{"POST / HTTP/1.1", "\n", body} << http;
    QTest::newRow("longer than a read")
        << QList<QByteArray>{"POST /" + QByteArray(100'000, 'x') + " HTTP/1.1" + body} << http;
    QTest::newRow("request in a header")
        << QList<QByteArray>{"GET / HTTP/1.1\r\nAccept-Language: SET POS 99" + body} << http;
    QTest::newRow("TLS") << QList<QByteArray>{QByteArray("\x16\x03\x01\x02\x00\x01", 6) + body}
                         << tls;
    QTest::newRow("TLS byte by byte") << QList<QByteArray>{"\x16", "\x03", body} << tls;
}

void tst_Server::foreignProtocolIsRefused()
{
    QFETCH(QList<QByteArray>, packets);
    QFETCH(QString, protocol);
    ClientEnd &other = connectClient();
    ClientEnd &client = connectClient();
    m_log->clear();
    for (const QByteArray &packet : packets) {
        if (m_server->clientSockets.size() == 2)
            sendAsOneRead(client, packet);
    }
    QTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.received(), QByteArray());
    QCOMPARE(m_log->infos().size(), 3);
    const QRegularExpression line(
        QStringLiteral("Closed QTcpSocket\\(0x[0-9a-f]+\\) because it began with (.*) "
                       "This port does not serve web browsers\\."));
    QCOMPARE(line.match(m_log->infos().first()).captured(1), protocol);
    QCOMPARE(answerTo(other, "GET POS\n"), QByteArray("POS 200\n"));
    QCOMPARE(positionRequest(), quint8{0});
}

void tst_Server::otherFirstLinesAreServed_data()
{
    QTest::addColumn<QByteArray>("text");

    QTest::newRow("garbage") << QByteArray("\xff\xfe !\"$%");
    QTest::newRow("control character") << QByteArray("\x16 ");
    QTest::newRow("empty line") << QByteArray("\r\nPOST / HTTP/1.1\r\n");
    QTest::newRow("lower case version") << QByteArray("POST / http/1.1\r\n");
    QTest::newRow("no version") << QByteArray("GET /pos\r\n");
    QTest::newRow("zero byte") << QByteArray("POST /\0 HTTP/1.1\n", 18);
    QTest::newRow("long") << QByteArray(100'000, 'x');
}

void tst_Server::otherFirstLinesAreServed()
{
    QFETCH(QByteArray, text);
    ClientEnd &client = connectClient();
    // The next read: bytes behind a zero byte are dropped.
    sendAsOneRead(client, text);
    QCOMPARE(answerTo(client, "\nSET POS 5\n"), QByteArray("ack"));
    QCOMPARE(positionRequest(), quint8{5});
}

void tst_Server::firstLineIsServedUntilItIsDecided()
{
    ClientEnd &client = connectClient();
    for (const char c : QByteArrayLiteral("GET POS")) {
        QCOMPARE(client.received(), QByteArray());
        sendAsOneRead(client, QByteArray(1, c));
    }
    QTRY_COMPARE(client.received(), QByteArray("200"));
    client.send(" HTTP/1.1\n");
    QTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.received(), QByteArray("200"));
}

void tst_Server::refusedClientGetsNoReply()
{
    ClientEnd &client = connectClient();
    client.send("GET POS HTTP/1.1\nGET POS\n");
    QTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.received(), QByteArray());
}

void tst_Server::httpBehindTheFirstLineIsServed()
{
    QCOMPARE(answerTo(connectClient(), "GET POS\nPOST / HTTP/1.1\r\n\r\nSET POS 6\n"),
             QByteArray("POS 200\nack"));
}

void tst_Server::selectionAppliesFromTheNextBatch()
{
    ClientEnd &client = connectClient();
    QCOMPARE(answerTo(client, "GET POS\nSET SID 2\nGET POS\n"),
             QByteArray("POS 200\nackPOS 200\n"));
    QCOMPARE(answerTo(client, "GET POS\n"), QByteArray("POS 100\n"));
}

void tst_Server::selectionWithoutAGripperIsKept()
{
    ClientEnd &client = connectClient();
    QCOMPARE(answerTo(client, "SET SID 5\n"), QByteArray("nak"));
    QCOMPARE(m_server->slaveIdBySocket.value(socketOf(0)), 5);
    QCOMPARE(answerTo(client, "GET POS\n"), QByteArray("POS ?\n"));
    QCOMPARE(answerTo(client, "GET SID\n"), QByteArray("SID [2, 9]\n"));
    QCOMPARE(answerTo(client, "SET SID 2\n"), QByteArray("ack"));
    QCOMPARE(answerTo(client, "GET POS\n"), QByteArray("POS 100\n"));
}

void tst_Server::eachClientHasItsOwnSelection()
{
    ClientEnd &first = connectClient();
    ClientEnd &second = connectClient();
    QCOMPARE(answerTo(first, "SET SID 2\n"), QByteArray("ack"));
    QCOMPARE(answerTo(second, "GET POS\n"), QByteArray("POS 200\n"));
    QCOMPARE(answerTo(first, "GET POS\n"), QByteArray("POS 100\n"));
}

void tst_Server::slaveIdIsNarrowedToEightBits()
{
    ClientEnd &client = connectClient();
    m_server->slaveIdBySocket[socketOf(0)] = 256 + 2;
    QCOMPARE(answerTo(client, "GET POS\n"), QByteArray("POS 100\n"));
}

void tst_Server::getVariableIsAnswered_data()
{
    QTest::addColumn<QByteArray>("value");

    const auto row = [](const char *name, const char *value) {
        QTest::newRow(name) << QByteArray(value);
    };
    row("ACT", "1");
    row("MOD", "2");
    row("GTO", "1");
    row("STA", "3");
    row("VST", "2");
    row("OBJ", "1");
    row("FLT", "05");
    row("LBP", "0");
    row("LGN", "0");
    row("LRD", "0");
    row("LBL", "0");
    row("MSC", "0");
    row("PRE", "007");
    row("POS", "200");
    row("COU", "33");
    row("DST", "0");
    row("SNU", "SIM-1009");
    row("PYE", "2024");
    row("NCY", "0");
    row("PON", "0");
    row("NPA", "0");
    row("FWV", "TA3-1.6.14");
    row("PCO", "0");
    row("VER", "MZV-2.0.0");
    row("SPE", "0");
    row("FOR", "0");
    row("DRI", "SCANNING");
    row("SID", "[2, 9]");
    row("UPG", "0");
    for (const char *name : {"ATR", "ARD", "NID", "SCN", "BLD", "ABC", "___", "A_1", "123"})
        row(name, "?");
}

void tst_Server::getVariableIsAnswered()
{
    QFETCH(QByteArray, value);
    const QByteArray name = nameOfRow();
    ClientEnd &client = connectClient();
    for (const char *ending : {"\n", "\r", "\r\n", "\n\n", "  \r\n"})
        QCOMPARE(answerTo(client, "GET " + name + ending), name + ' ' + value + '\n');
    for (const char *ending : {"", " ", "   "})
        QCOMPARE(answerTo(client, "GET " + name + ending), value);
}

void tst_Server::getVariableWithoutAGripperIsAnswered_data()
{
    QTest::addColumn<QByteArray>("value");

    for (const char *name :
         {"ACT", "MOD", "GTO", "STA", "VST", "OBJ", "FLT", "LBP", "LGN", "LRD", "LBL", "MSC",
          "PRE", "POS", "COU", "SNU", "PYE", "NCY", "PON", "NPA", "FWV", "SPE", "FOR", "ABC"})
        QTest::newRow(name) << QByteArray("?");
    const auto row = [](const char *name, const char *value) {
        QTest::newRow(name) << QByteArray(value);
    };
    row("DST", "0");
    row("PCO", "0");
    row("VER", "MZV-2.0.0");
    row("DRI", "SCANNING");
    row("SID", "[2, 9]");
    row("UPG", "0");
}

void tst_Server::getVariableWithoutAGripperIsAnswered()
{
    QFETCH(QByteArray, value);
    const QByteArray name = nameOfRow();
    ClientEnd &client = connectClient();
    selectNobody(client);
    QCOMPARE(answerTo(client, "GET " + name + '\n'), name + ' ' + value + '\n');
    QCOMPARE(answerTo(client, "GET " + name), value);
}

void tst_Server::longNameIsAnsweredByItsFirstThreeCharacters()
{
    ClientEnd &client = connectClient();
    QCOMPARE(answerTo(client, "GET SCN_BLOCK\n"), QByteArray("?"));
    QCOMPARE(answerTo(client, "GET POSITION\n"), QByteArray("200"));
    QCOMPARE(answerTo(client, "GET THROTTLE\nGET STA\n"), QByteArray("?STA 3\n"));
}

void tst_Server::setVariableIsAnswered_data()
{
    QTest::addColumn<QByteArray>("reply");

    for (const char *row :
         {"ACT 1", "ACT 0", "MOD 0", "MOD 1",      "GTO 1",  "GTO 0",     "ATR 1",
          "ATR 0", "ARD 1", "ARD 0", "LBP 1",      "LBP 0",  "LGN 1",     "LGN 0",
          "LRD 1", "LRD 0", "LBL 1", "LBL 0",      "MSC 0",  "POS 0",     "SPE 0",
          "FOR 0", "SCN",   "SID 9", "THROTTLE 1", "MUTE 1", "SCN_BLOCK", "NID 9"})
        QTest::newRow(row) << QByteArray("ack");
    for (const char *row : {"MOD 2", "SID 7", "UPG", "BLD"})
        QTest::newRow(row) << QByteArray("nak");
}

void tst_Server::setVariableIsAnswered()
{
    ClientEnd &client = connectClient();
    m_log->clear();
    QTEST(answerTo(client, QByteArray("SET ") + QTest::currentDataTag() + '\n'), "reply");
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")), QStringList());
    m_log->clear();
}

void tst_Server::setVariableWithoutAGripperIsAnswered_data()
{
    QTest::addColumn<bool>("handled");

    for (const char *row : {"ACT 1", "MOD 1", "MOD 2", "GTO 1", "ATR 1", "ARD 1", "LBP 1", "LGN 1",
                            "LRD 1", "LBL 1", "MSC 1", "POS 1", "SPE 1", "FOR 1", "UPG", "BLD 1"})
        QTest::newRow(row) << false;
    for (const char *row : {"SCN", "SID 9", "THROTTLE 1", "MUTE 1", "SCN_BLOCK", "NID 4"})
        QTest::newRow(row) << true;
}

void tst_Server::setVariableWithoutAGripperIsAnswered()
{
    QFETCH(bool, handled);
    ClientEnd &client = connectClient();
    selectNobody(client);
    const QByteArray pair = QTest::currentDataTag();
    QCOMPARE(answerTo(client, "SET " + pair + '\n'), QByteArray("ack"));
    QStringList lines;
    if (!handled)
        lines.append(
            QStringLiteral("SET UNHANDLED REQUEST : \"SET %1\\n\"").arg(QString::fromLatin1(pair)));
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")), lines);
}

void tst_Server::setIsAnsweredOnceWithoutALineEnding_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("reply");

    const auto row = [](const char *request, const char *reply) {
        QTest::newRow(QByteArray(request).simplified().constData())
            << QByteArray(request) << QByteArray(reply);
    };
    row("SET ACT 0 GTO 0 POS 1 SPE 0 FOR 0\r\n", "ack");
    row("SET MOD 2\n", "nak");
    row("SET MOD 2 MOD 1\n", "ack");
    row("SET MOD 1 MOD 2\n", "nak");
    row("SET MOD 2 POS 1 XYZ 1\n", "nak");
    row("SET SID 7 SID 9\n", "nak");
    row("SET SID 7 MOD 0\n", "ack");
    row("SET UPG 1 MOD 0 BLD\n", "nak");
    row("SET XYZ 1\n", "ack");
}

void tst_Server::setIsAnsweredOnceWithoutALineEnding()
{
    QFETCH(QByteArray, request);
    QTEST(answerTo(connectClient(), request), "reply");
}

void tst_Server::setAppliesItsPairsFromLeftToRight()
{
    ClientEnd &client = connectClient();
    QCOMPARE(answerTo(client, "SET ACT 1 GTO 1 POS 250 SPE 251 FOR 252 POS 253\n"),
             QByteArray("ack"));
    QCOMPARE(m_gripper->getActivateRequest(), quint8{1});
    QCOMPARE(m_gripper->getGoToRequest(), quint8{1});
    QCOMPARE(m_gripper->getPositionRequest(), quint8{253});
    QCOMPARE(m_gripper->getSpeedRequest(), quint8{251});
    QCOMPARE(m_gripper->getForceRequest(), quint8{252});
    QCOMPARE(answerTo(client, "SET ATR 1 ACT 1 ATR 1\n"), QByteArray("ack"));
    QCOMPARE(m_gripper->getAutoReleaseRequest(), quint8{1});
    QCOMPARE(answerTo(client, "SET ACT 0 GTO 0 SPE 0 FOR 0\n"), QByteArray("ack"));
    QCOMPARE(m_gripper->getAutoReleaseRequest(), quint8{0});
    QCOMPARE(m_gripper->getActivateRequest(), quint8{0});
    // Only the image: nothing has gone out, and nobody polls.
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_Server::setTakesTheLowByteOfAValue_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("position");

    QTest::newRow("negative") << QByteArray("SET POS -1\n") << 255;
    QTest::newRow("256") << QByteArray("SET POS 256\n") << 0;
    QTest::newRow("300") << QByteArray("SET POS 300\n") << 44;
    QTest::newRow("four digits") << QByteArray("SET POS 1000\n") << 100;
    QTest::newRow("no value") << QByteArray("SET POS\n") << 0;
    QTest::newRow("no number") << QByteArray("SET POS 1-1\n") << 0;
    QTest::newRow("leading zeros") << QByteArray("SET POS 007\n") << 7;
}

void tst_Server::setTakesTheLowByteOfAValue()
{
    QFETCH(QByteArray, request);
    m_gripper->setPositionRequest(99);
    QCOMPARE(answerTo(connectClient(), request), QByteArray("ack"));
    QTEST(int(positionRequest()), "position");
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")), QStringList());
}

void tst_Server::unhandledPairIsLogged_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("lines");
    QTest::addColumn<QString>("line");

    const auto row = [](const char *request, int lines, const char *line) {
        QTest::newRow(QByteArray(request).simplified().constData())
            << QByteArray(request) << lines << QString::fromLatin1(line);
    };
    row("set xyz 1\n", 1, R"(SET UNHANDLED REQUEST : "SET XYZ 1\n")");
    row("SET XYZ POS 4 ABC\r\n", 2, R"(SET UNHANDLED REQUEST : "SET XYZ POS 4 ABC\r\n")");
    row("SET POSI 1 STA 2\n", 2, R"(SET UNHANDLED REQUEST : "SET POSI 1 STA 2\n")");
}

void tst_Server::unhandledPairIsLogged()
{
    QFETCH(QByteArray, request);
    QFETCH(int, lines);
    QFETCH(QString, line);
    QCOMPARE(answerTo(connectClient(), request), QByteArray("ack"));
    QStringList expected;
    for (int i = 0; i < lines; ++i)
        expected.append(line);
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")), expected);
}

void tst_Server::requestsWithoutAClientAreCarriedOutSilently()
{
    m_server->decodeSetVariables(nullptr, requestOf("SET POS 12 SID 2 XYZ\n"), m_gripper);
    QCOMPARE(positionRequest(), quint8{12});
    m_server->decodeGetVariables(nullptr, requestOf("GET POS\n"), m_gripper);
    m_server->decodeGetVariables(nullptr, requestOf("GET POS\n"), {});
    QVERIFY(isClientless());
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")).size(), 1);
}

void tst_Server::emptyMatchIsNotAnswered()
{
    ClientEnd &client = connectClient();
    m_server->decodeGetVariables(socketOf(0), Request(), m_gripper);
    QCOMPARE(answerTo(client, "GET STA\n"), QByteArray("STA 3\n"));
}

void tst_Server::requestMayWaitIfOneOfItsPairsDoes_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<bool>("withGripper");
    QTest::addColumn<bool>("withoutGripper");

    const auto row = [](const char *request, bool withGripper, bool withoutGripper) {
        QTest::newRow(QByteArray(request).simplified().constData())
            << QByteArray(request) << withGripper << withoutGripper;
    };
    row("SET SCN_BLOCK\n", true, true);
    row("SET XYZ POS 1 NID 4 MOD 1\n", true, true);
    row("SET BLD\n", true, false);
    row("SET POS 44 UPG 1\n", true, false);
    row("SET POS 44 SCN MUTE 1 SID 9\n", false, false);
    // The identity of a gripper in the list is already known.
    row("GET FWV\n", false, false);
    row("GET POS\n", false, false);
}

void tst_Server::requestMayWaitIfOneOfItsPairsDoes()
{
    QFETCH(QByteArray, request);
    QTEST(m_server->mayWait(requestOf(request), m_gripper), "withGripper");
    QTEST(m_server->mayWait(requestOf(request), {}), "withoutGripper");
}

void tst_Server::requestOfTheSameClientIsAnsweredDuringItsScan()
{
    ClientEnd &client = connectClient();
    onNextFrame([&] { client.send("GET DST\n"); });
    client.send("SET SCN_BLOCK\n");
    QTRY_COMPARE(client.received(), QByteArray("DST 0\nack"));
    QVERIFY(m_server->gripperList.getGripperFromSlaveId(9) != m_gripper);
}

void tst_Server::requestOfAnotherClientIsAnsweredDuringAScan()
{
    ClientEnd &scanning = connectClient();
    ClientEnd &other = connectClient();
    QByteArray before;
    onNextFrame([&] { other.send("GET POS\n"); });
    connect(&m_line->bus(), &sim::BusSimulator::frameSeen, &m_line->bus(), [&] {
        if (m_line->requests().last() == QStringLiteral("4 read 500"))
            before = other.received();
    });
    scanning.send("SET SCN_BLOCK\n");
    QTRY_COMPARE(scanning.received(), QByteArray("ack"));
    QObject::disconnect(&m_line->bus(), nullptr, &m_line->bus(), nullptr);
    QCOMPARE(before, QByteArray("POS 200\n"));
}

void tst_Server::repliesInFrontOfAScanLeaveBeforeIt()
{
    ClientEnd &client = connectClient();
    QByteArray before;
    onNextFrame([&] { before = client.received(); });
    client.send("GET DST\nSET POS 3\nSET POS 4 SCN_BLOCK\n");
    QTRY_COMPARE(client.received(), QByteArray("DST 0\nackack"));
    QCOMPARE(before, QByteArray("DST 0\nack"));
}

void tst_Server::requestsBehindAScanAreAnsweredAfterIt()
{
    ClientEnd &client = connectClient();
    QByteArray during;
    onNextFrame([&] { during = client.received(); });
    QCOMPARE(answerTo(client, "SET SCN_BLOCK\nGET DST\nSET MOD 2\n"), QByteArray("ackDST 0\nnak"));
    QCOMPARE(during, QByteArray());
}

void tst_Server::newRequestDuringAScanTakesThoseInFrontAlong()
{
    ClientEnd &client = connectClient();
    onNextFrame([&] { client.send("GET DST\n"); });
    client.send("SET SCN_BLOCK\nGET VER\n");
    QTRY_COMPARE(client.received(), QByteArray("VER MZV-2.0.0\nDST 0\nack"));
}

void tst_Server::scansNest()
{
    ClientEnd &client = connectClient();
    ClientEnd &other = connectClient();
    onNextFrame([&] {
        client.send("SET SCN_BLOCK MOD 2\n");
        onNextFrame([&] { other.send("SET NID 9\n"); });
    });
    client.send("SET SCN_BLOCK\n");
    // The one that came last is over first.
    QTRY_COMPARE(client.received(), QByteArray("nakack"));
    QTRY_COMPARE(other.received(), QByteArray("ack"));
}

void tst_Server::clientMayVanishDuringItsScan_data()
{
    QTest::addColumn<Departure>("leave");
    QTest::newRow("closes") << &ClientEnd::close;
    QTest::newRow("resets") << &ClientEnd::reset;
}

void tst_Server::clientMayVanishDuringItsScan()
{
    QFETCH(Departure, leave);
    ClientEnd &client = connectClient();
    const QPointer<ClientConnection> socket(socketOf(0));
    onNextFrame([&] { (client.*leave)(); });
    client.send("SET SCN_BLOCK SID 2\nSET POS 33\nGET POS\n");
    QTRY_COMPARE(positionRequest(), quint8{33});
    QTRY_VERIFY(isClientless());
    QTRY_VERIFY(socket.isNull());
    QVERIFY(m_server->gripperList.getGripperFromSlaveId(9) != m_gripper);
}

void tst_Server::otherClientMayVanishDuringAScan()
{
    ClientEnd &scanning = connectClient();
    ClientEnd &other = connectClient();
    const QPointer<ClientConnection> socket(socketOf(1));
    bool goneDuringTheScan = false;
    onNextFrame([&] { other.close(); });
    connect(&m_line->bus(), &sim::BusSimulator::frameSeen, &m_line->bus(), [&] {
        if (m_line->requests().last() == QStringLiteral("4 read 500"))
            goneDuringTheScan = socket.isNull() && m_server->clientSockets.size() == 1;
    });
    scanning.send("SET SCN_BLOCK\n");
    QTRY_COMPARE(scanning.received(), QByteArray("ack"));
    QObject::disconnect(&m_line->bus(), nullptr, &m_line->bus(), nullptr);
    QVERIFY(goneDuringTheScan);
}

void tst_Server::clientsMayVanishDuringNestedScans()
{
    ClientEnd &outer = connectClient();
    ClientEnd &inner = connectClient();
    onNextFrame([&] {
        inner.send("SET SCN_BLOCK\nSET SPE 44\n");
        onNextFrame([&] {
            outer.close();
            inner.reset();
        });
    });
    outer.send("SET SCN_BLOCK\nSET POS 33\n");
    QTRY_COMPARE(positionRequest(), quint8{33});
    QTRY_VERIFY(isClientless());
    QCOMPARE(m_gripper->getSpeedRequest(), quint8{44});
    m_gripper->setSpeedRequest(0);
}

void tst_Server::halfClosedClientGetsTheReplyToItsScan()
{
    ClientEnd &client = connectClient();
    client.send("SET SCN_BLOCK\nGET POS\n");
    client.halfClose();
    QTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.received(), QByteArray("ackPOS 200\n"));
}

void tst_Server::requestsOfAClientThatClosesAtOnceAreCarriedOut_data()
{
    clientMayVanishDuringItsScan_data();
}

void tst_Server::requestsOfAClientThatClosesAtOnceAreCarriedOut()
{
    QFETCH(Departure, leave);
    ClientEnd &client = connectClient();
    // Of another size than what is read at a time.
    QByteArray requests;
    for (int i = 0; i < 10'000; ++i)
        requests += "SET POS 1\n";
    client.send(requests + "SET POS 2\nSET SPE 3\n");
    (client.*leave)();
    QTRY_COMPARE(m_gripper->getSpeedRequest(), quint8{3});
    QCOMPARE(positionRequest(), quint8{2});
    QTRY_VERIFY(isClientless());
    m_gripper->setSpeedRequest(0);
}

void tst_Server::endBehindAFullReadIsNoEarlierThanItsRequests_data()
{
    QTest::addColumn<Departure>("leave");
    QTest::addColumn<int>("beyond");
    for (const int beyond : {0, 63}) {
        QTest::addRow("closes, %d", beyond) << &ClientEnd::close << beyond;
        QTest::addRow("resets, %d", beyond) << &ClientEnd::reset << beyond;
        QTest::addRow("half-closes, %d", beyond) << &ClientEnd::halfClose << beyond;
    }
}

// The daemon reads on for the end of a line that it has read a part of.
void tst_Server::endBehindAFullReadIsNoEarlierThanItsRequests()
{
    QFETCH(Departure, leave);
    QFETCH(int, beyond);
    ClientEnd &client = connectClient();
    const QByteArray requests("SET SCN_BLOCK\nSET SPE 3\n");
    client.send(requests + QByteArray(16 * 1024 + beyond - requests.size(), 'x'));
    (client.*leave)();
    QTRY_COMPARE(m_gripper->getSpeedRequest(), quint8{3});
    QTRY_VERIFY(isClientless());
    m_gripper->setSpeedRequest(0);
}

void tst_Server::endBehindAFullReadCostsNoReplies_data()
{
    QTest::addColumn<int>("beyond");
    for (const int beyond : {-1, 0, 1, 6, 7, 8, 63, 64})
        QTest::addRow("%d", beyond) << beyond;
}

void tst_Server::endBehindAFullReadCostsNoReplies()
{
    QFETCH(int, beyond);
    ClientEnd &client = connectClient();
    const int size = 16 * 1024 + beyond;
    const QByteArray request("GET DST");
    // The last one is not ended.
    const int ended = (size - request.size()) / (request.size() + 1);
    QByteArray requests = (request + "\n").repeated(ended);
    requests.prepend(QByteArray(size - requests.size() - request.size(), '\n'));
    client.send(requests + request);
    client.halfClose();
    QTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.received(), QByteArray("DST 0\n").repeated(ended) + "0");
    QTRY_VERIFY(isClientless());
}

void tst_Server::longBatchIsAnsweredInOrderAndFromOneGripper()
{
    ClientEnd &client = connectClient();
    QByteArray requests("SET SID 2\n");
    QByteArray replies("ack");
    for (int i = 0; i < 300; ++i) {
        const bool isThird = i % 3 == 0;
        requests += isThird ? "GET POS\n" : "GET PCO\n";
        replies += isThird ? "POS 200\n" : "PCO 0\n";
    }
    client.send(requests);
    client.send("SET MOD 2\n");
    QTRY_COMPARE(client.received(), replies + "nak");
    client.take();
    client.send("GET POS\n");
    QTRY_COMPARE(client.received(), QByteArray("POS 100\n"));
}

void tst_Server::clientThatDoesNotReadIsNotReadEither()
{
    ClientEnd &client = adoptLocalClient();
    const QByteArray request("GET FWV\n");
    const QByteArray reply("FWV TA3-1.6.14\n");
    const QByteArray batch = request.repeated(8192);
    // Until the server takes nothing more. It needs some turns for what it has read, and the kernel
    // makes room in large pieces.
    constexpr int manyTurns = 1000;
    qint64 sent = 0;
    int idleTurns = 0;
    while (idleTurns < manyTurns && sent < 100'000'000) {
        const int count = client.sendSome(batch.mid(static_cast<int>(sent % request.size())));
        sent += count;
        idleTurns = count > 0 ? 0 : idleTurns + 1;
        QCoreApplication::processEvents();
    }
    QVERIFY(idleTurns == manyTurns);
    // 16 KiB and the rest of the last line.
    const qint64 repliesToOneRead = (16 * 1024 / request.size() + 1) * reply.size();
    QVERIFY(socketOf(0)->unsentBytes() > ClientConnection::replyLimit);
    QVERIFY(socketOf(0)->unsentBytes() <= ClientConnection::replyLimit + repliesToOneRead);

    QByteArray rest = request.mid(static_cast<int>(sent % request.size()));
    if (rest.size() == request.size())
        rest.clear();
    const auto requests = static_cast<int>((sent + rest.size()) / request.size());
    const auto allHasCome = [&] {
        rest.remove(0, client.sendSome(rest));
        return client.received().size() >= requests * reply.size();
    };
    QTimer reader;
    connect(&reader, &QTimer::timeout, this, allHasCome);
    reader.start(0);
    QTRY_VERIFY_WITH_TIMEOUT(allHasCome(), 60'000);
    QVERIFY(client.received() == reply.repeated(requests));
}

QTEST_GUILESS_MAIN(tst_Server)
#include "tst_server.moc"
