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

} // namespace

Q_DECLARE_METATYPE(Departure)

/// All tests share one server in a network namespace. Its list does not poll. The list has gripper
/// 2 at position 100 and gripper 9 at position 200.
class tst_Server : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void ignoredSignalIsIgnored();

    void clientsAreKeptInTheOrderInWhichTheyCame();
    void connectionAndDisconnectionAreLogged();

    void foreignProtocolIsRefused_data();
    void foreignProtocolIsRefused();
    void firstLineIsServedUntilItIsDecided();
    void httpAfterTheFirstLineIsServed();

    void eachClientHasItsOwnSelection();

    void setIsAnsweredOnceWithoutALineEnding_data();
    void setIsAnsweredOnceWithoutALineEnding();
    void setAppliesItsPairsFromLeftToRight();
    void eachUnhandledPairOfARequestIsLogged();
    void requestsWithoutAClientAreProcessedWithoutReply();
    void emptyRequestIsNotAnswered();

    void requestMayWaitIfOneOfItsPairsDoes_data();
    void requestMayWaitIfOneOfItsPairsDoes();
    void requestOfAnotherClientIsAnsweredDuringAScan();
    void earlierRepliesLeaveBeforeAScan();
    void laterRequestsOfABatchAreAnsweredAfterItsScan();
    void newRequestDuringAScanAlsoRunsEarlierOnes();
    void scansNest();
    void pairAfterAScanReachesTheNewGripper();
    void clientMayVanishDuringItsScan_data();
    void clientMayVanishDuringItsScan();
    void otherClientMayVanishDuringAScan();
    void clientsMayVanishDuringNestedScans();
    void halfClosedClientGetsTheReplyToItsScan();
    void requestsOfAClientThatClosesAtOnceAreProcessed_data();
    void requestsOfAClientThatClosesAtOnceAreProcessed();
    void endAfterAFullReadWaitsForItsRequests_data();
    void endAfterAFullReadWaitsForItsRequests();
    void endAfterAFullReadLosesNoReply_data();
    void endAfterAFullReadLosesNoReply();

    void longBatchIsAnsweredInOrderAndFromOneGripper();

private:
    ClientEnd &connectClient();
    ClientConnection *socketOf(int client) { return m_server->clientSockets.at(client); }
    QByteArray answerTo(ClientEnd &client, const QByteArray &request);
    static void sendAsOneRead(ClientEnd &client, const QByteArray &packet);
    void onNextFrame(const std::function<void()> &action);
    bool isClientless() const;
    // A scan replaces the object in the list.
    Server::Gripper latestGripper() const { return m_server->gripperList.latest(m_gripper); }
    quint8 positionRequest() const { return latestGripper()->getPositionRequest(); }
    quint8 speedRequest() const { return latestGripper()->getSpeedRequest(); }

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
    // Upgrades and jumps to the bootloader fail.
    for (const quint8 slaveId : {quint8{2}, quint8{9}})
        m_line->ignoreResets(slaveId);
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

// Returns the complete answer to `request`. The reply to a second request marks its end.
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

// The server reads the packet at once, so later packets are separate reads.
void tst_Server::sendAsOneRead(ClientEnd &client, const QByteArray &packet)
{
    client.send(packet);
    QCoreApplication::processEvents();
}

// Runs `action` after the next frame. A request that waits for the line runs inside the test's own
// wait, so the test acts from inside that wait.
void tst_Server::onNextFrame(const std::function<void()> &action)
{
    const auto connection = std::make_shared<QMetaObject::Connection>();
    *connection =
        connect(&m_line->bus(), &sim::BusSimulator::frameSeen, this, [this, connection, action] {
            disconnect(*connection);
            QTimer::singleShot(0, this, action);
        });
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

void tst_Server::connectionAndDisconnectionAreLogged()
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
    QTest::newRow("GET with HTTP version")
        << QList<QByteArray>{"GET POS HTTP/1.1\nGET POS\n"} << http;
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

void tst_Server::httpAfterTheFirstLineIsServed()
{
    QCOMPARE(answerTo(connectClient(), "GET POS\nPOST / HTTP/1.1\r\n\r\nSET POS 6\n"),
             QByteArray("POS 200\nack"));
}

void tst_Server::eachClientHasItsOwnSelection()
{
    ClientEnd &first = connectClient();
    ClientEnd &second = connectClient();
    QCOMPARE(answerTo(first, "SET SID 2\n"), QByteArray("ack"));
    QCOMPARE(answerTo(second, "GET POS\n"), QByteArray("POS 200\n"));
    QCOMPARE(answerTo(first, "GET POS\n"), QByteArray("POS 100\n"));
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
    QCOMPARE(answerTo(client, "SET ACT 0 GTO 0 SPE 0 FOR 0\n"), QByteArray("ack"));
    QCOMPARE(m_gripper->getActivateRequest(), quint8{0});
    // A SET changes only the image, and the list does not poll.
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_Server::eachUnhandledPairOfARequestIsLogged()
{
    QCOMPARE(answerTo(connectClient(), "set xyz pos 4 sta 1\r\n"), QByteArray("ack"));
    const QString line = QStringLiteral(R"(SET UNHANDLED REQUEST : "SET XYZ POS 4 STA 1\r\n")");
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")), (QStringList{line, line}));
}

void tst_Server::requestsWithoutAClientAreProcessedWithoutReply()
{
    m_server->decodeSetVariables(nullptr, requestOf("SET POS 12 SID 2 XYZ\n"), m_gripper);
    QCOMPARE(positionRequest(), quint8{12});
    m_server->decodeGetVariables(nullptr, requestOf("GET POS\n"), m_gripper);
    m_server->decodeGetVariables(nullptr, requestOf("GET POS\n"), {});
    QVERIFY(isClientless());
    QCOMPARE(m_log->infosThatStartWith(QStringLiteral("SET UNHANDLED")).size(), 1);
}

void tst_Server::emptyRequestIsNotAnswered()
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

void tst_Server::earlierRepliesLeaveBeforeAScan()
{
    ClientEnd &client = connectClient();
    QByteArray before;
    onNextFrame([&] { before = client.received(); });
    client.send("GET DST\nSET POS 3\nSET POS 4 SCN_BLOCK\n");
    QTRY_COMPARE(client.received(), QByteArray("DST 0\nackack"));
    QCOMPARE(before, QByteArray("DST 0\nack"));
}

void tst_Server::laterRequestsOfABatchAreAnsweredAfterItsScan()
{
    ClientEnd &client = connectClient();
    QByteArray during;
    onNextFrame([&] { during = client.received(); });
    QCOMPARE(answerTo(client, "SET SCN_BLOCK\nGET DST\nSET MOD 2\n"), QByteArray("ackDST 0\nnak"));
    QCOMPARE(during, QByteArray());
}

void tst_Server::newRequestDuringAScanAlsoRunsEarlierOnes()
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
    // The innermost scan ends first.
    QTRY_COMPARE(client.received(), QByteArray("nakack"));
    QTRY_COMPARE(other.received(), QByteArray("ack"));
}

void tst_Server::pairAfterAScanReachesTheNewGripper()
{
    ClientEnd &client = connectClient();
    client.send("SET SCN_BLOCK 1 POS 120\nSET SPE 55\n");
    QTRY_COMPARE(client.received(), QByteArray("ackack"));
    const Server::Gripper fresh = m_server->gripperList.getGripperFromSlaveId(9);
    QVERIFY(fresh != m_gripper);
    QCOMPARE(fresh->getPositionRequest(), quint8{120});
    QCOMPARE(fresh->getSpeedRequest(), quint8{55});
    fresh->setSpeedRequest(0);
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
    QCOMPARE(speedRequest(), quint8{44});
    latestGripper()->setSpeedRequest(0);
}

void tst_Server::halfClosedClientGetsTheReplyToItsScan()
{
    ClientEnd &client = connectClient();
    client.send("SET SCN_BLOCK\nGET POS\n");
    client.halfClose();
    QTRY_VERIFY(client.hasEnded());
    QCOMPARE(client.received(), QByteArray("ackPOS 200\n"));
}

void tst_Server::requestsOfAClientThatClosesAtOnceAreProcessed_data()
{
    clientMayVanishDuringItsScan_data();
}

void tst_Server::requestsOfAClientThatClosesAtOnceAreProcessed()
{
    QFETCH(Departure, leave);
    ClientEnd &client = connectClient();
    // The total size is not a multiple of the size of a read.
    QByteArray requests;
    for (int i = 0; i < 10'000; ++i)
        requests += "SET POS 1\n";
    client.send(requests + "SET POS 2\nSET SPE 3\n");
    (client.*leave)();
    QTRY_COMPARE(speedRequest(), quint8{3});
    QCOMPARE(positionRequest(), quint8{2});
    QTRY_VERIFY(isClientless());
    latestGripper()->setSpeedRequest(0);
}

void tst_Server::endAfterAFullReadWaitsForItsRequests_data()
{
    QTest::addColumn<Departure>("leave");
    QTest::addColumn<int>("beyond");
    for (const int beyond : {0, 63}) {
        QTest::addRow("closes, %d", beyond) << &ClientEnd::close << beyond;
        QTest::addRow("resets, %d", beyond) << &ClientEnd::reset << beyond;
        QTest::addRow("half-closes, %d", beyond) << &ClientEnd::halfClose << beyond;
    }
}

// After a full read the server reads the rest of the last line and may find the end.
void tst_Server::endAfterAFullReadWaitsForItsRequests()
{
    QFETCH(Departure, leave);
    QFETCH(int, beyond);
    ClientEnd &client = connectClient();
    const QByteArray requests("SET SCN_BLOCK\nSET SPE 3\n");
    client.send(requests + QByteArray(16 * 1024 + beyond - requests.size(), 'x'));
    (client.*leave)();
    QTRY_COMPARE(speedRequest(), quint8{3});
    QTRY_VERIFY(isClientless());
    latestGripper()->setSpeedRequest(0);
}

void tst_Server::endAfterAFullReadLosesNoReply_data()
{
    QTest::addColumn<int>("beyond");
    for (const int beyond : {-1, 0, 1, 6, 7, 8, 63, 64})
        QTest::addRow("%d", beyond) << beyond;
}

void tst_Server::endAfterAFullReadLosesNoReply()
{
    QFETCH(int, beyond);
    ClientEnd &client = connectClient();
    const int size = 16 * 1024 + beyond;
    const QByteArray request("GET DST");
    // The last request has no line ending.
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

QTEST_GUILESS_MAIN(tst_Server)
#include "tst_server.moc"
