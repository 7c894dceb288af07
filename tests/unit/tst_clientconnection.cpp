#include "clientconnection.h"

#include "clientend.h"
#include "logcapture.h"

#include <QDebug>
#include <QEventLoop>
#include <QPointer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <cerrno>
#include <fcntl.h>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

constexpr int chunkSize = 16 * 1024;
const QByteArray request("GET POS\n");

// The error of every send() on s_failingDescriptor; 0 for none.
int s_sendError = 0;
int s_failingDescriptor = -1;
int s_failedSends = 0;

// Returns consecutive numbers. A lost, doubled or moved byte changes the text.
QByteArray numbered(int size)
{
    QByteArray text;
    for (int number = 0; text.size() < size; ++number)
        text += QByteArray::number(number) + ' ';
    text.truncate(size);
    return text;
}

// Runs the event loop often enough for the longest chain of queued events.
void handleWaitingEvents()
{
    for (int turn = 0; turn < 20; ++turn)
        QCoreApplication::processEvents();
}

} // namespace

// Replaces the function of the C library: a healthy machine does not report these errors.
extern "C" ssize_t send(int descriptor, const void *data, size_t size, int flags)
{
    if (s_sendError == 0 || descriptor != s_failingDescriptor)
        return ::syscall(SYS_sendto, descriptor, data, size, flags, nullptr, 0);
    ++s_failedSends;
    errno = s_sendError;
    return -1;
}

/// Each test has one connection: a local one, or a TCP connection if TCP matters.
class tst_ClientConnection : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void isPrintedAsQTcpSocket();
    void kernelOptionIsSet_data();
    void kernelOptionIsSet();

    void bytesAreReadUnchanged();
    void readableRepeatsUntilAllBytesAreRead();
    void readableRepeatsInsideASlotThatPumpsEvents();
    void readWithoutBytesDoesNotEndTheConnection();

    void sendRepliesSendsAtOnce();
    void repliesArriveCompleteAndInOrder();
    void shortageOnlyDelaysReplies_data();
    void shortageOnlyDelaysReplies();
    void endedWaitsForDelayedReplies();
    void sendErrorEndsTheConnectionAfterItsRequestsAreRead();

    void halfClosedClientGetsItsReplies();
    void endedWaitsUntilAllRepliesAreSent();
    void requestsOfAClientThatClosedAreRead();
    void requestsOfAClientThatResetAreRead();
    void repliesToAClientThatResetAreDropped();
    void requestsOfAClientThatResetWithUnsentRepliesAreRead();

    void silentPeerIsShutDown();
    void requestsOfASilentPeerAreRead();
    void droppedClientIsNeitherReadNorAnswered();

    void endedIsEmittedOnceFromTheEventLoop();
    void endedWaitsForTheLastRelease();

    void connectionIsReadAtTheReplyLimit();
    void connectionIsNotReadAboveTheReplyLimit();

    void pausedConnectionIsNotRead();

    void deletionClosesTheConnection();
    void heldConnectionOutlivesANestedLoop();
    void deletedConnectionDoesNotEmitEnded();

private:
    void connectClient(DescriptorPair ends);
    QByteArray readSome(int maxSize);
    QByteArray readAll();
    void addReply(const QByteArray &reply);
    void fillTheKernel();
    void readWheneverReadable();

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<ClientEnd> m_client;
    SocketPoller m_poller{nullptr};
    std::unique_ptr<ClientConnection> m_connection;
    int m_descriptor = -1;
};

void tst_ClientConnection::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_ClientConnection::init()
{
    m_log->clear();
    connectClient(localPair());
}

void tst_ClientConnection::cleanup()
{
    s_sendError = 0;
    s_failedSends = 0;
    m_connection.reset();
    m_client.reset();
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_ClientConnection::cleanupTestCase()
{
    m_log.reset();
}

void tst_ClientConnection::connectClient(DescriptorPair ends)
{
    m_client = std::make_unique<ClientEnd>(ends.clientEnd);
    m_connection = std::make_unique<ClientConnection>(m_poller, ends.serverEnd, nullptr);
    m_descriptor = ends.serverEnd;
    s_failingDescriptor = ends.serverEnd;
}

QByteArray tst_ClientConnection::readSome(int maxSize)
{
    QByteArray bytes(maxSize, '\0');
    bytes.truncate(
        static_cast<int>(m_connection->read(bytes.data(), static_cast<std::size_t>(bytes.size()))));
    return bytes;
}

QByteArray tst_ClientConnection::readAll()
{
    QByteArray all;
    for (QByteArray some = readSome(4096); !some.isEmpty(); some = readSome(4096))
        all += some;
    return all;
}

void tst_ClientConnection::addReply(const QByteArray &reply)
{
    m_connection->addReply({reply.constData(), static_cast<std::size_t>(reply.size())});
}

// Afterwards the kernel accepts no reply until the client reads.
void tst_ClientConnection::fillTheKernel()
{
    while (m_connection->unsentBytes() == 0) {
        addReply(QByteArray(chunkSize, 'x'));
        m_connection->sendReplies();
    }
}

void tst_ClientConnection::readWheneverReadable()
{
    connect(m_connection.get(), &ClientConnection::readable, this, [this] { readAll(); });
}

void tst_ClientConnection::isPrintedAsQTcpSocket()
{
    QString text;
    QDebug(&text) << m_connection.get();
    const auto address = reinterpret_cast<quintptr>(m_connection.get());
    QCOMPARE(text, QStringLiteral("QTcpSocket(0x%1) ").arg(address, 0, 16));
}

void tst_ClientConnection::kernelOptionIsSet_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("name");
    QTest::addColumn<int>("value");

    QTest::newRow("no delay") << int(IPPROTO_TCP) << int(TCP_NODELAY) << 1;
    QTest::newRow("keep-alive") << int(SOL_SOCKET) << int(SO_KEEPALIVE) << 1;
    QTest::newRow("first probe") << int(IPPROTO_TCP) << int(TCP_KEEPIDLE) << 60;
    QTest::newRow("next probes") << int(IPPROTO_TCP) << int(TCP_KEEPINTVL) << 20;
    QTest::newRow("number of probes") << int(IPPROTO_TCP) << int(TCP_KEEPCNT) << 9;
    QTest::newRow("no end if the client does not read")
        << int(IPPROTO_TCP) << int(TCP_USER_TIMEOUT) << 0;
}

void tst_ClientConnection::kernelOptionIsSet()
{
    QFETCH(int, level);
    QFETCH(int, name);
    connectClient(tcpPair());
    int value = -1;
    socklen_t length = sizeof value;
    QCOMPARE(::getsockopt(m_descriptor, level, name, &value, &length), 0);
    QTEST(value, "value");
}

void tst_ClientConnection::bytesAreReadUnchanged()
{
    QSignalSpy readable(m_connection.get(), &ClientConnection::readable);
    const QByteArray bytes("GET POS\r\n\0\xFF\n", 12);
    m_client->send(bytes);
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), bytes);
}

void tst_ClientConnection::readableRepeatsUntilAllBytesAreRead()
{
    const QByteArray sent = numbered(3000);
    QByteArray received;
    connect(m_connection.get(), &ClientConnection::readable, this,
            [&] { received += readSome(1000); });
    m_client->send(sent);
    QTRY_COMPARE(received, sent);
}

void tst_ClientConnection::readableRepeatsInsideASlotThatPumpsEvents()
{
    QList<QByteArray> received;
    QEventLoop wait;
    connect(m_connection.get(), &ClientConnection::readable, this, [&] {
        received.append(readAll());
        if (received.size() > 1) {
            wait.quit();
            return;
        }
        m_client->send("second");
        wait.exec();
    });
    m_client->send("first");
    QTRY_COMPARE(received, (QList<QByteArray>{"first", "second"}));
}

void tst_ClientConnection::readWithoutBytesDoesNotEndTheConnection()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    QCOMPARE(readSome(1), QByteArray());
    m_client->send("x");
    QByteArray received;
    QTRY_VERIFY(!(received += readAll()).isEmpty());
    QCOMPARE(received, QByteArray("x"));
    QCOMPARE(ended.size(), 0);
}

void tst_ClientConnection::sendRepliesSendsAtOnce()
{
    m_connection->addReply("ack");
    QCOMPARE(m_client->received(), QByteArray());
    QCOMPARE(m_connection->unsentBytes(), 3);
    m_connection->sendReplies();
    // The event loop has not run in between.
    QCOMPARE(m_client->received(), QByteArray("ack"));
    QCOMPARE(m_connection->unsentBytes(), 0);
}

void tst_ClientConnection::repliesArriveCompleteAndInOrder()
{
    const QByteArray replies = numbered(3 * 1024 * 1024);
    for (int at = 0; at < replies.size(); at += chunkSize) {
        addReply(replies.mid(at, chunkSize));
        m_connection->sendReplies();
    }
    QVERIFY(m_connection->unsentBytes() > 0);
    QTRY_VERIFY(m_client->received().size() >= replies.size());
    QVERIFY(m_client->received() == replies);
    QCOMPARE(m_connection->unsentBytes(), 0);
}

void tst_ClientConnection::shortageOnlyDelaysReplies_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("no buffers") << ENOBUFS;
    QTest::newRow("no memory") << ENOMEM;
}

void tst_ClientConnection::shortageOnlyDelaysReplies()
{
    QFETCH(int, error);
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    s_sendError = error;
    m_connection->addReply("ack");
    m_connection->sendReplies();
    QTest::qWait(300);
    m_connection->addReply("nak");
    m_connection->sendReplies();
    // Meanwhile the kernel always reports room to write.
    QVERIFY2(s_failedSends > 1 && s_failedSends < 30, qPrintable(QString::number(s_failedSends)));
    QCOMPARE(m_connection->unsentBytes(), 6);

    s_sendError = 0;

    QTRY_COMPARE(m_client->received(), QByteArray("acknak"));
    QCOMPARE(m_connection->unsentBytes(), 0);
    m_connection->addReply("ack");
    m_connection->sendReplies();
    QCOMPARE(m_client->received(), QByteArray("acknakack"));
    QCOMPARE(ended.size(), 0);
}

void tst_ClientConnection::endedWaitsForDelayedReplies()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    readWheneverReadable();
    s_sendError = ENOBUFS;
    m_connection->addReply("ack");
    m_connection->sendReplies();
    m_client->halfClose();
    QTRY_VERIFY(s_failedSends > 2);
    QCOMPARE(ended.size(), 0);

    s_sendError = 0;

    QTRY_COMPARE(ended.size(), 1);
    QCOMPARE(m_client->received(), QByteArray("ack"));
}

void tst_ClientConnection::sendErrorEndsTheConnectionAfterItsRequestsAreRead()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    m_client->send(request);
    s_sendError = EHOSTUNREACH;
    m_connection->addReply("ack");
    m_connection->sendReplies();
    QByteArray received;
    connect(m_connection.get(), &ClientConnection::readable, this, [&] { received += readAll(); });

    QTRY_COMPARE(ended.size(), 1);

    QCOMPARE(received, request);
    QVERIFY(m_client->hasEnded());
}

void tst_ClientConnection::halfClosedClientGetsItsReplies()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    readWheneverReadable();
    m_connection->hold();
    m_client->send(request);
    m_client->halfClose();
    QTRY_COMPARE(readSome(1), QByteArray());
    handleWaitingEvents();
    QCOMPARE(ended.size(), 0);

    m_connection->addReply("POS 7\n");
    m_connection->sendReplies();
    m_connection->release();

    QTRY_COMPARE(m_client->received(), QByteArray("POS 7\n"));
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::endedWaitsUntilAllRepliesAreSent()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    readWheneverReadable();
    const QByteArray replies = numbered(2 * 1024 * 1024);
    addReply(replies);
    m_client->halfClose();
    QTRY_VERIFY(readAll().isEmpty());
    m_connection->sendReplies();
    handleWaitingEvents();
    QCOMPARE(ended.size(), 0);

    QTRY_VERIFY(m_client->received().size() == replies.size());
    QVERIFY(m_client->received() == replies);
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::requestsOfAClientThatClosedAreRead()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    QByteArray received;
    connect(m_connection.get(), &ClientConnection::readable, this, [&] { received += readAll(); });
    m_client->send(numbered(5000));
    m_client->close();
    QTRY_COMPARE(ended.size(), 1);
    QCOMPARE(received, numbered(5000));
}

void tst_ClientConnection::requestsOfAClientThatResetAreRead()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    QByteArray received;
    connect(m_connection.get(), &ClientConnection::readable, this,
            [&] { received += readSome(500); });
    m_client->send(numbered(5000));
    m_client->reset();
    QTRY_COMPARE(ended.size(), 1);
    QCOMPARE(received, numbered(5000));
}

void tst_ClientConnection::repliesToAClientThatResetAreDropped()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    m_client->send(request);
    m_client->reset();
    // The first send may succeed; later ones report the reset.
    for (int i = 0; i < 3; ++i) {
        m_connection->addReply("ack");
        m_connection->sendReplies();
    }
    QCOMPARE(m_connection->unsentBytes(), 0);
    m_connection->addReply("ack");
    QCOMPARE(m_connection->unsentBytes(), 0);
    readWheneverReadable();
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::requestsOfAClientThatResetWithUnsentRepliesAreRead()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    QByteArray received;
    connect(m_connection.get(), &ClientConnection::readable, this, [&] { received += readAll(); });
    while (m_connection->unsentBytes() <= ClientConnection::replyLimit) {
        addReply(QByteArray(chunkSize, 'x'));
        m_connection->sendReplies();
    }
    m_client->send(request);
    handleWaitingEvents();
    QCOMPARE(received, QByteArray());

    m_client->reset();

    QTRY_COMPARE(ended.size(), 1);
    QCOMPARE(received, request);
    QCOMPARE(m_connection->unsentBytes(), 0);
}

void tst_ClientConnection::silentPeerIsShutDown()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    connect(m_connection.get(), &ClientConnection::readable, this, [this] { readAll(); });
    QTest::qWait(100);
    m_connection->shutDownIfSilentFor(60'000);
    handleWaitingEvents();
    QCOMPARE(ended.size(), 0);
    m_connection->shutDownIfSilentFor(50);
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::requestsOfASilentPeerAreRead()
{
    connectClient(tcpPair());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    m_client->send(request);
    QTest::qWait(100);
    m_connection->shutDownIfSilentFor(50);
    QCOMPARE(readAll(), request);
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::droppedClientIsNeitherReadNorAnswered()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    QSignalSpy readable(m_connection.get(), &ClientConnection::readable);
    m_client->send(request);
    m_connection->addReply("POS 1\n");
    m_connection->hold();
    m_connection->drop();
    handleWaitingEvents();
    QCOMPARE(readable.size(), 0);
    QCOMPARE(readAll(), QByteArray());
    m_connection->addReply("POS 2\n");
    m_connection->sendReplies();
    QCOMPARE(m_client->received(), QByteArray());
    QCOMPARE(ended.size(), 0);

    m_connection->release();
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::endedIsEmittedOnceFromTheEventLoop()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    m_client->close();
    QTRY_VERIFY(readAll().isEmpty() && readSome(1).isEmpty());
    // The end is known, but ended() comes from the event loop.
    QCOMPARE(ended.size(), 0);

    QTRY_COMPARE(ended.size(), 1);
    readAll();
    m_connection->hold();
    m_connection->release();
    m_connection->sendReplies();
    handleWaitingEvents();
    QCOMPARE(ended.size(), 1);
}

void tst_ClientConnection::endedWaitsForTheLastRelease()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    m_connection->hold();
    m_connection->hold();
    m_client->close();
    QTRY_COMPARE(readSome(1), QByteArray());
    m_connection->release();
    handleWaitingEvents();
    QCOMPARE(ended.size(), 0);
    m_connection->release();
    QTRY_COMPARE(ended.size(), 1);
}

void tst_ClientConnection::connectionIsReadAtTheReplyLimit()
{
    fillTheKernel();
    const auto room = static_cast<int>(ClientConnection::replyLimit - m_connection->unsentBytes());
    addReply(QByteArray(room, 'x'));
    m_connection->sendReplies();
    QCOMPARE(m_connection->unsentBytes(), int{ClientConnection::replyLimit});

    QSignalSpy readable(m_connection.get(), &ClientConnection::readable);
    m_client->send(request);
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), request);
}

void tst_ClientConnection::connectionIsNotReadAboveTheReplyLimit()
{
    fillTheKernel();
    const auto room = static_cast<int>(ClientConnection::replyLimit - m_connection->unsentBytes());
    addReply(QByteArray(room + 1, 'x'));
    m_connection->sendReplies();

    QSignalSpy readable(m_connection.get(), &ClientConnection::readable);
    m_client->send(request);
    handleWaitingEvents();
    QCOMPARE(readable.size(), 0);
    QCOMPARE(m_connection->unsentBytes(), int{ClientConnection::replyLimit} + 1);

    m_client->take();
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), request);
}

void tst_ClientConnection::pausedConnectionIsNotRead()
{
    QSignalSpy readable(m_connection.get(), &ClientConnection::readable);
    m_connection->pause();
    QVERIFY(m_connection->isPaused());
    m_client->send(request);
    handleWaitingEvents();
    QCOMPARE(readable.size(), 0);

    m_connection->resume();
    QVERIFY(!m_connection->isPaused());
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), request);
}

void tst_ClientConnection::deletionClosesTheConnection()
{
    m_connection.reset();
    QVERIFY(m_client->hasEnded());
    QCOMPARE(::fcntl(m_descriptor, F_GETFD), -1);
    QCOMPARE(errno, EBADF);
}

void tst_ClientConnection::heldConnectionOutlivesANestedLoop()
{
    const QPointer<ClientConnection> connection(m_connection.get());
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    bool aliveAfterTheWait = false;
    connect(connection, &ClientConnection::ended, this,
            [this] { m_connection.release()->deleteLater(); });
    connect(connection, &ClientConnection::readable, this, [&] {
        if (readSome(100).isEmpty())
            return;
        connection->hold();
        m_client->close();
        QEventLoop wait;
        QTimer::singleShot(50, &wait, &QEventLoop::quit);
        wait.exec();
        aliveAfterTheWait = !connection.isNull() && ended.isEmpty();
        connection->addReply("ack");
        connection->sendReplies();
        connection->release();
    });
    m_client->send(request);
    QTRY_VERIFY(connection.isNull());
    QVERIFY(aliveAfterTheWait);
    QCOMPARE(::fcntl(m_descriptor, F_GETFD), -1);
}

void tst_ClientConnection::deletedConnectionDoesNotEmitEnded()
{
    QSignalSpy ended(m_connection.get(), &ClientConnection::ended);
    m_client->close();
    QTRY_COMPARE(readSome(1), QByteArray());
    m_connection.reset();
    handleWaitingEvents();
    QCOMPARE(ended.size(), 0);
}

QTEST_GUILESS_MAIN(tst_ClientConnection)
#include "tst_clientconnection.moc"
