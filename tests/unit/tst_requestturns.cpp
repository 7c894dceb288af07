#include "requestturns.h"

#include "clientconnection.h"
#include "clientend.h"

#include <QSignalSpy>
#include <QTest>

#include <algorithm>
#include <functional>
#include <memory>
#include <vector>

namespace {

// The test itself starts the requests of this client. Reading the connection only finds its end.
struct Client
{
    Client(SocketPoller &poller, DescriptorPair ends)
        : end(ends.clientEnd)
        , connection(std::make_unique<ClientConnection>(poller, ends.serverEnd, nullptr))
    {
        QObject::connect(connection.get(), &ClientConnection::readable, connection.get(), [this] {
            char byte = 0;
            connection->read(&byte, 1);
        });
    }

    ClientEnd end;
    std::unique_ptr<ClientConnection> connection;
    RequestScanner buffer;
};

} // namespace

/// The test handles the requests itself. A request that contains "WAIT" may wait: it calls
/// m_onWait. The reply to each request is its text.
class tst_RequestTurns : public QObject, public RequestTurns::Handler
{
    Q_OBJECT

public:
    bool mayWait(const Request &request,
                 const QSharedPointer<KvPelloGripper> &gripper) const override;
    bool processRequest(ClientConnection *client, const Request &request,
                        const QSharedPointer<KvPelloGripper> &gripper) override;
    bool mayNest() const override { return m_mayNest; }

private slots:
    void init();

    void firstShareIsProcessedAtOnce();
    void eachLaterShareHasATurnOfItsOwn();
    void clientsTakeTurns();
    void requestThatMayWaitIsAShareOfItsOwn();
    void queuedBatchesContinueWhileARequestWaits();
    void requestBeforeTheBufferedOnesIsProcessedFirst();
    void queuedClientIsHeldAndPaused();

    void waitingRequestsNestUpToTheLimit();
    void requestBeyondTheLimitIsPostponed();
    void laterRequestsOfAPostponedClientWaitToo();
    void requestThatDoesNotWaitIsProcessedBeyondTheLimit();
    void postponedRequestsRunInOrderOneAfterAnother();
    void newRequestDoesNotOvertakePostponedOnes();
    void batchOfAPostponedRequestRunsToItsEnd();
    void requestThatMustRunAlonePostponesOthersThatMayWait();

private:
    Client &addClient();
    void start(Client &client, const QByteArray &text);
    void nestToTheLimit(const std::function<void()> &action);

    SocketPoller m_poller{nullptr};
    std::vector<std::unique_ptr<Client>> m_clients;
    std::unique_ptr<RequestTurns> m_turns;
    std::function<void()> m_onWait;
    QList<QByteArray> m_processed; // texts without their line endings
    QVector<ClientConnection *> m_servedClients;
    bool m_mayNest = true;
    int m_waiting = 0;
    int m_mostWaiting = 0;
};

void tst_RequestTurns::init()
{
    m_turns = std::make_unique<RequestTurns>(*this);
    m_clients.clear();
    m_onWait = nullptr;
    m_processed.clear();
    m_servedClients.clear();
    m_mostWaiting = 0;
    QCOMPARE(m_waiting, 0);
}

bool tst_RequestTurns::mayWait(const Request &request,
                               const QSharedPointer<KvPelloGripper> & /*gripper*/) const
{
    return request.text.find("WAIT") != std::string::npos;
}

bool tst_RequestTurns::processRequest(ClientConnection *client, const Request &request,
                                      const QSharedPointer<KvPelloGripper> &gripper)
{
    const QByteArray text = QByteArray::fromStdString(request.text).trimmed();
    const bool waits = mayWait(request, gripper);
    if (waits) {
        ++m_waiting;
        m_mostWaiting = std::max(m_mostWaiting, m_waiting);
        if (m_onWait)
            m_onWait();
        --m_waiting;
    }
    m_processed.append(text);
    m_servedClients.append(client);
    client->addReply(request.text);
    return waits;
}

Client &tst_RequestTurns::addClient()
{
    m_clients.push_back(std::make_unique<Client>(m_poller, localPair()));
    return *m_clients.back();
}

void tst_RequestTurns::start(Client &client, const QByteArray &text)
{
    client.buffer.append(text.constData(), static_cast<std::size_t>(text.size()));
    m_turns->start({client.connection.get(), &client.buffer, {}, std::nullopt});
}

// Starts requests that wait inside each other, and calls `action` inside the innermost one.
void tst_RequestTurns::nestToTheLimit(const std::function<void()> &action)
{
    m_onWait = [&] {
        if (m_waiting < RequestTurns::nestingLimit)
            start(addClient(), "SET WAIT\n");
        else
            action();
    };
    start(addClient(), "SET WAIT\n");
    m_onWait = nullptr;
}

void tst_RequestTurns::firstShareIsProcessedAtOnce()
{
    Client &client = addClient();
    start(client, QByteArray("GET AAA\n").repeated(100));
    // The first share has 256 bytes. Its replies have left.
    QCOMPARE(m_processed.size(), 32);
    QCOMPARE(client.end.received(), QByteArray("GET AAA\n").repeated(32));
    QTRY_COMPARE(client.end.received(), QByteArray("GET AAA\n").repeated(100));
}

void tst_RequestTurns::eachLaterShareHasATurnOfItsOwn()
{
    start(addClient(), QByteArray("GET AAA\n").repeated(2000));
    QVector<int> sizes;
    while (m_processed.size() < 2000) {
        const int before = m_processed.size();
        QCoreApplication::sendPostedEvents();
        sizes.append(m_processed.size() - before);
    }
    // Three shares have 4 KiB each, and the last one has the rest.
    QCOMPARE(sizes, (QVector<int>{512, 512, 512, 432}));
}

void tst_RequestTurns::clientsTakeTurns()
{
    Client &first = addClient();
    Client &second = addClient();
    start(first, QByteArray("GET AAA\n").repeated(32 + 2 * 512));
    start(second, QByteArray("GET AAA\n").repeated(32 + 2 * 512));
    QTRY_COMPARE(m_processed.size(), 2 * (32 + 2 * 512));
    const QVector<ClientConnection *> clients{first.connection.get(), second.connection.get()};
    QVector<ClientConnection *> expected;
    for (const int share : {32, 512, 512}) {
        for (ClientConnection *client : clients)
            expected += QVector<ClientConnection *>(share, client);
    }
    QVERIFY(m_servedClients == expected);
}

void tst_RequestTurns::requestThatMayWaitIsAShareOfItsOwn()
{
    start(addClient(), "SET WAIT\nGET AAA\nGET BBB\n");
    QCOMPARE(m_processed, QList<QByteArray>{"SET WAIT"});
    QTRY_COMPARE(m_processed, (QList<QByteArray>{"SET WAIT", "GET AAA", "GET BBB"}));
}

void tst_RequestTurns::queuedBatchesContinueWhileARequestWaits()
{
    start(addClient(), QByteArray("GET AAA\n").repeated(32) + "SET WAIT\n");
    start(addClient(), QByteArray("GET BBB\n").repeated(33));
    int processedInsideTheWait = 0;
    m_onWait = [&] {
        QTRY_COMPARE(m_processed.count("GET BBB"), 33);
        processedInsideTheWait = m_processed.count("GET BBB");
    };
    QTRY_COMPARE(m_processed.count("SET WAIT"), 1);
    QCOMPARE(processedInsideTheWait, 33);
}

void tst_RequestTurns::requestBeforeTheBufferedOnesIsProcessedFirst()
{
    Client &client = addClient();
    RequestScanner scanner;
    scanner.append("GET AAA\n", 8);
    Request request;
    QVERIFY(scanner.takeNext(request));
    client.buffer.append("GET BBB\n", 8);
    m_turns->start({client.connection.get(), &client.buffer, {}, request});
    QCOMPARE(m_processed, (QList<QByteArray>{"GET AAA", "GET BBB"}));
}

void tst_RequestTurns::queuedClientIsHeldAndPaused()
{
    Client &client = addClient();
    QSignalSpy ended(client.connection.get(), &ClientConnection::ended);
    const QByteArray text = QByteArray("GET AAA\n").repeated(33);
    start(client, text);
    QVERIFY(client.connection->isPaused());
    client.connection->drop();
    QCoreApplication::sendPostedEvents(client.connection.get());
    QCOMPARE(ended.size(), 0);

    QTRY_COMPARE(m_processed.size(), 33);
    QVERIFY(!client.connection->isPaused());
    QTRY_COMPARE(ended.size(), 1);
}

void tst_RequestTurns::waitingRequestsNestUpToTheLimit()
{
    nestToTheLimit([] {});
    QCOMPARE(m_mostWaiting, 32);
    QCOMPARE(m_processed.size(), 32);
}

void tst_RequestTurns::requestBeyondTheLimitIsPostponed()
{
    nestToTheLimit([this] {
        start(addClient(), "GET AAA\nSET WAIT BBB\nGET CCC\n");
        QTest::qWait(20);
        QCOMPARE(m_processed, QList<QByteArray>{"GET AAA"});
        QCOMPARE(m_clients.back()->end.received(), QByteArray("GET AAA\n"));
    });
    QTRY_COMPARE(m_clients.back()->end.received(), QByteArray("GET AAA\nSET WAIT BBB\nGET CCC\n"));
    QCOMPARE(m_mostWaiting, RequestTurns::nestingLimit);
}

void tst_RequestTurns::laterRequestsOfAPostponedClientWaitToo()
{
    nestToTheLimit([this] {
        Client &client = addClient();
        start(client, "SET WAIT BBB\n");
        QVERIFY(client.connection->isPaused());
        start(client, "GET CCC\n");
        QVERIFY(m_processed.isEmpty());
    });
    QTRY_COMPARE(m_processed.mid(RequestTurns::nestingLimit),
                 (QList<QByteArray>{"SET WAIT BBB", "GET CCC"}));
}

void tst_RequestTurns::requestThatDoesNotWaitIsProcessedBeyondTheLimit()
{
    nestToTheLimit([this] {
        start(addClient(), "SET AAA\nGET BBB\n");
        QCOMPARE(m_processed, (QList<QByteArray>{"SET AAA", "GET BBB"}));
    });
}

void tst_RequestTurns::postponedRequestsRunInOrderOneAfterAnother()
{
    nestToTheLimit([this] {
        for (const char *text : {"SET WAIT AAA\n", "SET WAIT BBB\n", "SET WAIT CCC\n"})
            start(addClient(), text);
    });
    m_mostWaiting = 0;
    // Nested requests would end in reverse order.
    m_onWait = [] { QTest::qWait(5); };
    QTRY_COMPARE(m_processed.mid(RequestTurns::nestingLimit),
                 (QList<QByteArray>{"SET WAIT AAA", "SET WAIT BBB", "SET WAIT CCC"}));
    QCOMPARE(m_mostWaiting, 1);
}

void tst_RequestTurns::newRequestDoesNotOvertakePostponedOnes()
{
    nestToTheLimit([this] {
        start(addClient(), "SET WAIT AAA\n");
        start(addClient(), "SET WAIT BBB\n");
    });
    // Requests may nest again, but the postponed ones have not run yet.
    start(addClient(), "SET WAIT CCC\n");
    QCOMPARE(m_processed.size(), RequestTurns::nestingLimit);
    QTRY_COMPARE(m_processed.mid(RequestTurns::nestingLimit),
                 (QList<QByteArray>{"SET WAIT AAA", "SET WAIT BBB", "SET WAIT CCC"}));
}

void tst_RequestTurns::batchOfAPostponedRequestRunsToItsEnd()
{
    nestToTheLimit([this] { start(addClient(), "SET WAIT AAA\nSET WAIT BBB\n"); });
    QTRY_COMPARE(m_processed.mid(RequestTurns::nestingLimit),
                 (QList<QByteArray>{"SET WAIT AAA", "SET WAIT BBB"}));
}

void tst_RequestTurns::requestThatMustRunAlonePostponesOthersThatMayWait()
{
    m_onWait = [this] {
        m_onWait = nullptr;
        m_mayNest = false;
        start(addClient(), "GET AAA\nSET WAIT BBB\n");
        QTest::qWait(20);
        QCOMPARE(m_processed, QList<QByteArray>{"GET AAA"});
        m_mayNest = true;
    };
    start(addClient(), "SET WAIT ONE\n");
    QTRY_COMPARE(m_processed, (QList<QByteArray>{"GET AAA", "SET WAIT ONE", "SET WAIT BBB"}));
    QCOMPARE(m_mostWaiting, 1);
}

QTEST_GUILESS_MAIN(tst_RequestTurns)
#include "tst_requestturns.moc"
