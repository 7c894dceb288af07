#include "clientsocket.h"

#include "clientend.h"
#include "logcapture.h"

#include <QDebug>
#include <QEventLoop>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <array>
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

// The error of every send() on the descriptor below as long as it is set.
int s_sendError = 0;
int s_failingDescriptor = -1;
int s_failedSends = 0;

// Text in which a lost, doubled or moved byte shows.
QByteArray numbered(int size)
{
    QByteArray text;
    for (int number = 0; text.size() < size; ++number)
        text += QByteArray::number(number) + ' ';
    text.truncate(size);
    return text;
}

// Events that are waiting now are handled, in as many turns as the longest chain of them needs.
void handleWaitingEvents()
{
    for (int turn = 0; turn < 20; ++turn)
        QCoreApplication::processEvents();
}

} // namespace

// In place of the C library's: some errors come only on a machine that has run out of something.
extern "C" ssize_t send(int descriptor, const void *data, size_t size, int flags)
{
    if (s_sendError == 0 || descriptor != s_failingDescriptor)
        return ::syscall(SYS_sendto, descriptor, data, size, flags, nullptr, 0);
    ++s_failedSends;
    errno = s_sendError;
    return -1;
}

/// Each test has one connection, local unless it needs the ways of TCP.
class tst_ClientSocket : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void printsAsTcpSocket();
    void kernelOptionIsSet_data();
    void kernelOptionIsSet();

    void bytesAreReadAsTheyCame();
    void readyReadComesAgainUntilAllIsRead();
    void readyReadComesAgainInsideASlotThatPumpsEvents();
    void readWithoutBytesEndsNothing();

    void repliesLeaveWhenTheyAreSent();
    void bytesToWriteCountsWhatTheKernelHasNotTaken();
    void noReplyIsLostOrMoved();
    void shortageOnlyDelaysReplies_data();
    void shortageOnlyDelaysReplies();
    void endOfAHalfClosedClientWaitsForDelayedReplies();
    void connectionThatCannotBeWrittenToEnds();

    void halfClosedClientStillGetsItsReplies();
    void halfClosedClientIsReportedOnceAllRepliesAreSent();
    void requestsOfAClientThatClosedAreRead();
    void requestsOfAClientThatResetAreRead();
    void repliesToAClientThatResetAreDropped();
    void clientThatResetWithRepliesPendingIsReadToTheEnd();

    void peerThatWasNotHeardForTooLongIsGivenUp();
    void requestsOfAPeerThatIsGivenUpAreRead();
    void clientThatIsGivenUpIsNeitherReadNorAnswered();

    void disconnectedComesOnceAndFromTheEventLoop();
    void holdDefersDisconnected();
    void disconnectedWaitsForTheLastOfSeveralHolds();

    void readingGoesOnAtTheReplyLimit();
    void readingPausesAboveTheReplyLimitAndGoesOnWhenRepliesAreRead();

    void deletionClosesTheConnection();
    void deletionOnDisconnectedInsideANestedLoopIsSafe();
    void reportOfTheEndIsDroppedWithTheSocket();

private:
    void connectClient(DescriptorPair ends);
    QByteArray readAll();
    void fillTheKernel();
    void reportReadsUntilTheEnd();

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<ClientEnd> m_client;
    SocketPoller m_poller{nullptr};
    std::unique_ptr<ClientSocket> m_socket;
    int m_descriptor = -1;
};

void tst_ClientSocket::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_ClientSocket::init()
{
    m_log->clear();
    connectClient(localPair());
}

void tst_ClientSocket::cleanup()
{
    s_sendError = 0;
    s_failedSends = 0;
    m_socket.reset();
    m_client.reset();
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_ClientSocket::cleanupTestCase()
{
    m_log.reset();
}

void tst_ClientSocket::connectClient(DescriptorPair ends)
{
    m_client = std::make_unique<ClientEnd>(ends.clientEnd);
    m_socket = std::make_unique<ClientSocket>(m_poller, nullptr);
    m_descriptor = ends.serverEnd;
    s_failingDescriptor = ends.serverEnd;
    QVERIFY(m_socket->setSocketDescriptor(ends.serverEnd, QAbstractSocket::ConnectedState,
                                          QIODevice::ReadWrite));
}

QByteArray tst_ClientSocket::readAll()
{
    QByteArray all;
    std::array<char, 4096> bytes{};
    qint64 count = 0;
    while ((count = m_socket->read(bytes.data(), bytes.size())) > 0)
        all.append(bytes.data(), static_cast<int>(count));
    return all;
}

// From now on the kernel takes no reply, until the client reads.
void tst_ClientSocket::fillTheKernel()
{
    while (m_socket->bytesToWrite() == 0) {
        m_socket->write(QByteArray(chunkSize, 'x'));
        m_socket->sendReplies();
    }
}

void tst_ClientSocket::reportReadsUntilTheEnd()
{
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [this] { readAll(); });
}

void tst_ClientSocket::printsAsTcpSocket()
{
    QString text;
    QDebug(&text) << m_socket.get();
    QVERIFY2(text.startsWith(QStringLiteral("QTcpSocket(0x")), qPrintable(text));
}

void tst_ClientSocket::kernelOptionIsSet_data()
{
    QTest::addColumn<int>("level");
    QTest::addColumn<int>("name");
    QTest::addColumn<int>("value");

    QTest::newRow("no delay") << int(IPPROTO_TCP) << int(TCP_NODELAY) << 1;
    QTest::newRow("keep-alive") << int(SOL_SOCKET) << int(SO_KEEPALIVE) << 1;
    QTest::newRow("first probe") << int(IPPROTO_TCP) << int(TCP_KEEPIDLE) << 60;
    QTest::newRow("next probes") << int(IPPROTO_TCP) << int(TCP_KEEPINTVL) << 20;
    QTest::newRow("number of probes") << int(IPPROTO_TCP) << int(TCP_KEEPCNT) << 9;
    QTest::newRow("no end for who does not read") << int(IPPROTO_TCP) << int(TCP_USER_TIMEOUT) << 0;
}

void tst_ClientSocket::kernelOptionIsSet()
{
    QFETCH(int, level);
    QFETCH(int, name);
    connectClient(tcpPair());
    int value = -1;
    socklen_t length = sizeof value;
    QCOMPARE(::getsockopt(m_descriptor, level, name, &value, &length), 0);
    QTEST(value, "value");
}

void tst_ClientSocket::bytesAreReadAsTheyCame()
{
    QSignalSpy readable(m_socket.get(), &QTcpSocket::readyRead);
    const QByteArray bytes("GET POS\r\n\0\xFF\n", 12);
    m_client->send(bytes);
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), bytes);
}

void tst_ClientSocket::readyReadComesAgainUntilAllIsRead()
{
    const QByteArray sent = numbered(3000);
    QByteArray received;
    connect(m_socket.get(), &QTcpSocket::readyRead, this,
            [&] { received += m_socket->read(1000); });
    m_client->send(sent);
    QTRY_COMPARE(received, sent);
}

void tst_ClientSocket::readyReadComesAgainInsideASlotThatPumpsEvents()
{
    QList<QByteArray> received;
    QEventLoop wait;
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [&] {
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

void tst_ClientSocket::readWithoutBytesEndsNothing()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    char byte = 0;
    QCOMPARE(m_socket->read(&byte, 1), -1);
    m_client->send("x");
    QByteArray received;
    QTRY_VERIFY(!(received += readAll()).isEmpty());
    QCOMPARE(received, QByteArray("x"));
    QCOMPARE(disconnected.size(), 0);
}

void tst_ClientSocket::repliesLeaveWhenTheyAreSent()
{
    QCOMPARE(m_socket->write("ack"), 3);
    QCOMPARE(m_client->received(), QByteArray());
    QCOMPARE(m_socket->bytesToWrite(), 3);
    m_socket->sendReplies();
    // No turn of the event loop in between.
    QCOMPARE(m_client->received(), QByteArray("ack"));
    QCOMPARE(m_socket->bytesToWrite(), 0);
}

void tst_ClientSocket::bytesToWriteCountsWhatTheKernelHasNotTaken()
{
    fillTheKernel();
    const qint64 before = m_socket->bytesToWrite();
    m_socket->write("12345");
    m_socket->sendReplies();
    QCOMPARE(m_socket->bytesToWrite(), before + 5);
}

void tst_ClientSocket::noReplyIsLostOrMoved()
{
    const QByteArray replies = numbered(3 * 1024 * 1024);
    for (int at = 0; at < replies.size(); at += chunkSize) {
        m_socket->write(replies.mid(at, chunkSize));
        m_socket->sendReplies();
    }
    QVERIFY(m_socket->bytesToWrite() > 0);
    QTRY_VERIFY(m_client->received().size() >= replies.size());
    QVERIFY(m_client->received() == replies);
    QCOMPARE(m_socket->bytesToWrite(), 0);
}

void tst_ClientSocket::shortageOnlyDelaysReplies_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("no buffers") << ENOBUFS;
    QTest::newRow("no memory") << ENOMEM;
}

void tst_ClientSocket::shortageOnlyDelaysReplies()
{
    QFETCH(int, error);
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    s_sendError = error;
    m_socket->write("ack");
    m_socket->sendReplies();
    QTest::qWait(300);
    m_socket->write("nak");
    m_socket->sendReplies();
    // The kernel reports room all the time.
    QVERIFY2(s_failedSends > 1 && s_failedSends < 30, qPrintable(QString::number(s_failedSends)));
    QCOMPARE(m_socket->bytesToWrite(), 6);

    s_sendError = 0;

    QTRY_COMPARE(m_client->received(), QByteArray("acknak"));
    QCOMPARE(m_socket->bytesToWrite(), 0);
    m_socket->write("ack");
    m_socket->sendReplies();
    QCOMPARE(m_client->received(), QByteArray("acknakack"));
    QCOMPARE(disconnected.size(), 0);
}

void tst_ClientSocket::endOfAHalfClosedClientWaitsForDelayedReplies()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    reportReadsUntilTheEnd();
    s_sendError = ENOBUFS;
    m_socket->write("ack");
    m_socket->sendReplies();
    m_client->halfClose();
    QTRY_VERIFY(s_failedSends > 2);
    QCOMPARE(disconnected.size(), 0);

    s_sendError = 0;

    QTRY_COMPARE(disconnected.size(), 1);
    QCOMPARE(m_client->received(), QByteArray("ack"));
}

void tst_ClientSocket::connectionThatCannotBeWrittenToEnds()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    m_client->send(request);
    s_sendError = EHOSTUNREACH;
    m_socket->write("ack");
    m_socket->sendReplies();
    QByteArray received;
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [&] { received += readAll(); });

    QTRY_COMPARE(disconnected.size(), 1);

    QCOMPARE(received, request);
    QVERIFY(m_client->hasEnded());
}

void tst_ClientSocket::halfClosedClientStillGetsItsReplies()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    reportReadsUntilTheEnd();
    m_socket->hold();
    m_client->send(request);
    m_client->halfClose();
    QTRY_COMPARE(m_socket->read(1), QByteArray());
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 0);

    m_socket->write("POS 7\n");
    m_socket->sendReplies();
    m_socket->release();

    QTRY_COMPARE(m_client->received(), QByteArray("POS 7\n"));
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::halfClosedClientIsReportedOnceAllRepliesAreSent()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    reportReadsUntilTheEnd();
    const QByteArray replies = numbered(2 * 1024 * 1024);
    m_socket->write(replies);
    m_client->halfClose();
    QTRY_VERIFY(readAll().isEmpty());
    m_socket->sendReplies();
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 0);

    QTRY_VERIFY(m_client->received().size() == replies.size());
    QVERIFY(m_client->received() == replies);
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::requestsOfAClientThatClosedAreRead()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    QByteArray received;
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [&] { received += readAll(); });
    m_client->send(numbered(5000));
    m_client->close();
    QTRY_COMPARE(disconnected.size(), 1);
    QCOMPARE(received, numbered(5000));
}

void tst_ClientSocket::requestsOfAClientThatResetAreRead()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    QByteArray received;
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [&] { received += m_socket->read(500); });
    m_client->send(numbered(5000));
    m_client->reset();
    QTRY_COMPARE(disconnected.size(), 1);
    QCOMPARE(received, numbered(5000));
}

void tst_ClientSocket::repliesToAClientThatResetAreDropped()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    m_client->send(request);
    m_client->reset();
    // The first write may find out; from then on nothing is kept.
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(m_socket->write("ack"), 3);
        m_socket->sendReplies();
    }
    QCOMPARE(m_socket->bytesToWrite(), 0);
    QCOMPARE(m_socket->write("ack"), 3);
    QCOMPARE(m_socket->bytesToWrite(), 0);
    reportReadsUntilTheEnd();
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::clientThatResetWithRepliesPendingIsReadToTheEnd()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    QByteArray received;
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [&] { received += readAll(); });
    while (m_socket->bytesToWrite() <= ClientSocket::__replyLimit) {
        m_socket->write(QByteArray(chunkSize, 'x'));
        m_socket->sendReplies();
    }
    m_client->send(request);
    handleWaitingEvents();
    QCOMPARE(received, QByteArray());

    m_client->reset();

    QTRY_COMPARE(disconnected.size(), 1);
    QCOMPARE(received, request);
    QCOMPARE(m_socket->bytesToWrite(), 0);
}

void tst_ClientSocket::peerThatWasNotHeardForTooLongIsGivenUp()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    connect(m_socket.get(), &QTcpSocket::readyRead, this, [this] { readAll(); });
    QTest::qWait(100);
    m_socket->giveUpIfUnheardFor(60'000);
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 0);
    m_socket->giveUpIfUnheardFor(50);
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::requestsOfAPeerThatIsGivenUpAreRead()
{
    connectClient(tcpPair());
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    m_client->send(request);
    QTest::qWait(100);
    m_socket->giveUpIfUnheardFor(50);
    QCOMPARE(readAll(), request);
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::clientThatIsGivenUpIsNeitherReadNorAnswered()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    QSignalSpy readyRead(m_socket.get(), &QTcpSocket::readyRead);
    m_client->send(request);
    m_socket->addReply("POS 1\n");
    m_socket->hold();
    m_socket->giveUp();
    handleWaitingEvents();
    QCOMPARE(readyRead.size(), 0);
    QCOMPARE(readAll(), QByteArray());
    m_socket->addReply("POS 2\n");
    m_socket->sendReplies();
    QCOMPARE(m_client->received(), QByteArray());
    QCOMPARE(disconnected.size(), 0);

    m_socket->release();
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::disconnectedComesOnceAndFromTheEventLoop()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    m_client->close();
    QTRY_VERIFY(readAll().isEmpty() && m_socket->read(1).isEmpty());
    // The end is known, and nobody who is on the stack has been told.
    QCOMPARE(disconnected.size(), 0);
    QCOMPARE(m_socket->state(), QAbstractSocket::ConnectedState);

    QTRY_COMPARE(disconnected.size(), 1);
    QCOMPARE(m_socket->state(), QAbstractSocket::UnconnectedState);
    readAll();
    m_socket->hold();
    m_socket->release();
    m_socket->sendReplies();
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::holdDefersDisconnected()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    reportReadsUntilTheEnd();
    m_socket->hold();
    m_client->close();
    QTRY_COMPARE(m_socket->read(1), QByteArray());
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 0);

    m_socket->release();
    QCOMPARE(disconnected.size(), 0);
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::disconnectedWaitsForTheLastOfSeveralHolds()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    m_socket->hold();
    m_socket->hold();
    m_client->close();
    QTRY_COMPARE(m_socket->read(1), QByteArray());
    m_socket->release();
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 0);
    m_socket->release();
    QTRY_COMPARE(disconnected.size(), 1);
}

void tst_ClientSocket::readingGoesOnAtTheReplyLimit()
{
    fillTheKernel();
    const auto room = static_cast<int>(ClientSocket::__replyLimit - m_socket->bytesToWrite());
    m_socket->write(QByteArray(room, 'x'));
    m_socket->sendReplies();
    QCOMPARE(m_socket->bytesToWrite(), qint64{ClientSocket::__replyLimit});

    QSignalSpy readable(m_socket.get(), &QTcpSocket::readyRead);
    m_client->send(request);
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), request);
}

void tst_ClientSocket::readingPausesAboveTheReplyLimitAndGoesOnWhenRepliesAreRead()
{
    fillTheKernel();
    const auto room = static_cast<int>(ClientSocket::__replyLimit - m_socket->bytesToWrite());
    m_socket->write(QByteArray(room + 1, 'x'));
    m_socket->sendReplies();

    QSignalSpy readable(m_socket.get(), &QTcpSocket::readyRead);
    m_client->send(request);
    handleWaitingEvents();
    QCOMPARE(readable.size(), 0);
    QCOMPARE(m_socket->bytesToWrite(), qint64{ClientSocket::__replyLimit} + 1);

    m_client->take();
    QTRY_VERIFY(!readable.isEmpty());
    QCOMPARE(readAll(), request);
}

void tst_ClientSocket::deletionClosesTheConnection()
{
    m_socket.reset();
    QVERIFY(m_client->hasEnded());
    QCOMPARE(::fcntl(m_descriptor, F_GETFD), -1);
    QCOMPARE(errno, EBADF);
}

void tst_ClientSocket::deletionOnDisconnectedInsideANestedLoopIsSafe()
{
    ClientSocket *socket = m_socket.release();
    QPointer<ClientSocket> alive(socket);
    QSignalSpy disconnected(socket, &QTcpSocket::disconnected);
    bool aliveAfterTheWait = false;
    bool sentAfterTheWait = false;
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QTcpSocket::readyRead, this, [&] {
        if (socket->read(100).isEmpty())
            return;
        socket->hold();
        m_client->close();
        QEventLoop wait;
        QTimer::singleShot(50, &wait, &QEventLoop::quit);
        wait.exec();
        aliveAfterTheWait = !alive.isNull() && disconnected.isEmpty();
        sentAfterTheWait = socket->write("ack") == 3;
        socket->sendReplies();
        socket->release();
    });
    m_client->send(request);
    QTRY_VERIFY(alive.isNull());
    QVERIFY(aliveAfterTheWait);
    QVERIFY(sentAfterTheWait);
    QCOMPARE(::fcntl(m_descriptor, F_GETFD), -1);
}

void tst_ClientSocket::reportOfTheEndIsDroppedWithTheSocket()
{
    QSignalSpy disconnected(m_socket.get(), &QTcpSocket::disconnected);
    m_client->close();
    QTRY_COMPARE(m_socket->read(1), QByteArray());
    m_socket.reset();
    handleWaitingEvents();
    QCOMPARE(disconnected.size(), 0);
}

QTEST_GUILESS_MAIN(tst_ClientSocket)
#include "tst_clientsocket.moc"
