#include "clientlistener.h"

#include "clientend.h"
#include "clientsocket.h"
#include "logcapture.h"

#include <QAbstractEventDispatcher>
#include <QHostAddress>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <memory>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <optional>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr quint16 anyFreePort = 0;
// Both ends of a client are in this process.
constexpr int room = 100;
constexpr int crowd = 45;

// When the kernel says it has heard of every peer, if it is not to tell the truth.
std::optional<quint32> s_heardMsAgo;

// The error of every accept4() as long as it is set. The connection stays in the queue.
int s_acceptError = 0;
// The error of the next accept4() only. It takes a connection out of the queue and drops it.
int s_connectionError = 0;
int s_failedAccepts = 0;

// Lets the process open `count` more descriptors and no more, until it goes out of scope.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int count)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        // The lowest free number is handed out next; those above it may be in use as well.
        std::vector<int> descriptors(static_cast<std::size_t>(count));
        for (int &descriptor : descriptors)
            descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
        rlimit lowered = m_before;
        lowered.rlim_cur = static_cast<rlim_t>(descriptors.back()) + 1;
        for (const int descriptor : descriptors)
            ::close(descriptor);
        m_isSet = ::setrlimit(RLIMIT_NOFILE, &lowered) == 0;
    }

    ~DescriptorLimit() { ::setrlimit(RLIMIT_NOFILE, &m_before); }

    DescriptorLimit(const DescriptorLimit &) = delete;
    DescriptorLimit &operator=(const DescriptorLimit &) = delete;

    bool isSet() const { return m_isSet; }

private:
    rlimit m_before{};
    bool m_isSet = false;
};

// How many more the process can open, counted up to `atMost`.
int freeDescriptors(int atMost)
{
    std::vector<int> opened(static_cast<std::size_t>(atMost));
    for (int &descriptor : opened)
        descriptor = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const auto missing = std::count(opened.begin(), opened.end(), -1);
    for (const int descriptor : opened)
        ::close(descriptor);
    return atMost - static_cast<int>(missing);
}

} // namespace

// In place of the C library's: no test can wait for as long as a peer may be silent.
extern "C" int getsockopt(int descriptor, int level, int name, void *value,
                          socklen_t *length) noexcept
{
    const auto result =
        static_cast<int>(::syscall(SYS_getsockopt, descriptor, level, name, value, length));
    if (result == 0 && level == IPPROTO_TCP && name == TCP_INFO && s_heardMsAgo) {
        auto *info = static_cast<tcp_info *>(value);
        info->tcpi_last_ack_recv = *s_heardMsAgo;
        info->tcpi_last_data_recv = *s_heardMsAgo;
    }
    return result;
}

// In place of the C library's: some errors come only on a machine that has run out of something.
extern "C" int accept4(int descriptor, sockaddr *address, socklen_t *length, int flags)
{
    auto result = -1;
    if (s_acceptError == 0)
        result = static_cast<int>(::syscall(SYS_accept4, descriptor, address, length, flags));
    else
        errno = s_acceptError;
    if (result >= 0 && s_connectionError != 0) {
        ::close(result);
        errno = std::exchange(s_connectionError, 0);
        result = -1;
    }
    s_failedAccepts += result < 0 && errno != EAGAIN ? 1 : 0;
    return result;
}

class tst_ClientListener : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void portThatIsTakenIsNotListenedOn();
    void listensOnAllAddressesOfBothFamilies();
    void queueIsLongEnoughForACrowd();
    void connectionsComeAsClientSockets();
    void everyConnectionIsAnnounced();
    void acceptsAgainWhenTheFirstConnectionFoundNoDescriptor();
    void acceptsAgainAfterOthersTookAllDescriptors();
    void restsWhileNoConnectionCanBeAccepted_data();
    void restsWhileNoConnectionCanBeAccepted();
    void errorOfOneConnectionDelaysNoOther_data();
    void errorOfOneConnectionDelaysNoOther();
    void clientsLeaveDescriptorsForTheLine();
    void restsWhileClientsWaitForADescriptor();
    void waitingClientsAreAcceptedAsOthersLeave();
    void peersThatAreSilentForMinutesAreGivenUp();
    void listenerTakesItsClientsAlong();

private:
    ClientSocket *nextClient();
    void addClient();
    void serveClients();
    void crowdIn();

    std::unique_ptr<LogCapture> m_log;
    std::vector<std::unique_ptr<ClientEnd>> m_clients;
    std::optional<DescriptorLimit> m_limit;
    int m_served = 0;
    std::unique_ptr<ClientListener> m_listener;
};

void tst_ClientListener::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_ClientListener::init()
{
    m_log->clear();
    m_served = 0;
    m_listener = std::make_unique<ClientListener>(nullptr);
    QVERIFY(m_listener->listenOn(anyFreePort));
}

void tst_ClientListener::cleanup()
{
    s_heardMsAgo.reset();
    s_acceptError = 0;
    s_failedAccepts = 0;
    m_limit.reset();
    m_clients.clear();
    m_listener.reset();
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_ClientListener::cleanupTestCase()
{
    m_log.reset();
}

ClientSocket *tst_ClientListener::nextClient()
{
    return dynamic_cast<ClientSocket *>(m_listener->nextPendingConnection());
}

void tst_ClientListener::portThatIsTakenIsNotListenedOn()
{
    ClientListener second(nullptr);
    QVERIFY(!second.listenOn(m_listener->serverPort()));
    QVERIFY(!second.isListening());
}

void tst_ClientListener::listensOnAllAddressesOfBothFamilies()
{
    QCOMPARE(m_listener->serverAddress(), QHostAddress(QHostAddress::Any));
    QTcpSocket client;
    for (const auto address : {QHostAddress::LocalHost, QHostAddress::LocalHostIPv6}) {
        client.connectToHost(QHostAddress(address), m_listener->serverPort());
        QTRY_COMPARE(client.state(), QAbstractSocket::ConnectedState);
        client.abort();
    }
}

void tst_ClientListener::queueIsLongEnoughForACrowd()
{
    int systemsLimit = 0;
    std::ifstream("/proc/sys/net/core/somaxconn") >> systemsLimit;
    QVERIFY(systemsLimit > 0);
    // Of a socket that listens this field is the length of its queue.
    tcp_info info{};
    socklen_t length = sizeof info;
    const auto descriptor = static_cast<int>(m_listener->socketDescriptor());
    QCOMPARE(::getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    QCOMPARE(static_cast<int>(info.tcpi_sacked), std::min(4096, systemsLimit));
}

void tst_ClientListener::connectionsComeAsClientSockets()
{
    ClientEnd client(ClientEnd::connectTo(m_listener->serverPort()));
    QTRY_VERIFY(m_listener->hasPendingConnections());
    ClientSocket *socket = nextClient();
    QVERIFY(socket);
    QCOMPARE(socket->state(), QAbstractSocket::ConnectedState);
    QVERIFY(socket->isOpen());
    socket->write("ack");
    socket->sendReplies();
    QTRY_COMPARE(client.received(), QByteArray("ack"));
}

void tst_ClientListener::everyConnectionIsAnnounced()
{
    QSignalSpy announced(m_listener.get(), &QTcpServer::newConnection);
    int taken = 0;
    connect(m_listener.get(), &QTcpServer::newConnection, this,
            [&] { taken += nextClient() != nullptr ? 1 : 0; });
    for (int i = 0; i < 100; ++i)
        addClient();
    QTRY_COMPARE(announced.size(), 100);
    QCOMPARE(taken, 100);
    QVERIFY(!m_listener->hasPendingConnections());
}

void tst_ClientListener::acceptsAgainWhenTheFirstConnectionFoundNoDescriptor()
{
    QSignalSpy announced(m_listener.get(), &QTcpServer::newConnection);
    // Room for the client's own end only.
    std::optional<DescriptorLimit> limit(1);
    QVERIFY(limit->isSet());
    ClientEnd client(ClientEnd::connectTo(m_listener->serverPort()));
    QTRY_VERIFY(s_failedAccepts > 0);
    QCOMPARE(announced.size(), 0);

    limit.reset();

    QTRY_COMPARE(announced.size(), 1);
    QVERIFY(nextClient());
}

void tst_ClientListener::acceptsAgainAfterOthersTookAllDescriptors()
{
#ifdef __SANITIZE_ADDRESS__
    // Left to the build without sanitizers, because UBSan opens a pipe to look at an object, and
    // takes every object for invalid when it gets none: this test leaves no descriptor for it.
    QSKIP("the sanitizer needs a descriptor for its look at objects, and here none is left");
#endif
    QSignalSpy announced(m_listener.get(), &QTcpServer::newConnection);
    serveClients();
    addClient();
    QTRY_COMPARE(announced.size(), 1);
    // Room for the two clients' own ends, and for one of ours.
    m_limit.emplace(3);
    QVERIFY(m_limit->isSet());
    addClient();
    addClient();
    QTRY_COMPARE(announced.size(), 2);
    QCOMPARE(freeDescriptors(1), 0);

    m_clients.front().reset();

    QTRY_COMPARE(announced.size(), 3);
}

void tst_ClientListener::restsWhileNoConnectionCanBeAccepted_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("the process has no descriptor left") << EMFILE;
    QTest::newRow("the system has no descriptor left") << ENFILE;
    QTest::newRow("no buffers") << ENOBUFS;
    QTest::newRow("no memory") << ENOMEM;
    QTest::newRow("not permitted") << EPERM;
}

void tst_ClientListener::restsWhileNoConnectionCanBeAccepted()
{
    QFETCH(int, error);
    serveClients();
    addClient();
    QTRY_COMPARE(m_served, 1);
    s_acceptError = error;
    addClient();
    QTRY_VERIFY(s_failedAccepts > 0);
    QTest::qWait(600);
    QVERIFY2(s_failedAccepts <= 3, qPrintable(QString::number(s_failedAccepts)));
    QCOMPARE(m_served, 1);

    s_acceptError = 0;

    QTRY_COMPARE(m_served, 2);
}

void tst_ClientListener::errorOfOneConnectionDelaysNoOther_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("aborted") << ECONNABORTED;
    QTest::newRow("interrupted") << EINTR;
    QTest::newRow("against the protocol") << EPROTO;
    QTest::newRow("unreachable") << EHOSTUNREACH;
}

void tst_ClientListener::errorOfOneConnectionDelaysNoOther()
{
    QFETCH(int, error);
    serveClients();
    s_connectionError = error;
    addClient();
    addClient();
    QTRY_COMPARE_WITH_TIMEOUT(m_served, 1, 400);
    QCOMPARE(s_failedAccepts, 1);
}

void tst_ClientListener::clientsLeaveDescriptorsForTheLine()
{
    crowdIn();
    // A serial port with its lock file, a child process with its pipes.
    QCOMPARE(freeDescriptors(8), 8);
}

void tst_ClientListener::restsWhileClientsWaitForADescriptor()
{
    crowdIn();
    int wakeUps = 0;
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake,
            m_listener.get(), [&] { ++wakeUps; });
    QTest::qWait(600);

    // The wait itself wakes up every few milliseconds.
    QVERIFY2(wakeUps < 600, qPrintable(QString::number(wakeUps)));
}

void tst_ClientListener::waitingClientsAreAcceptedAsOthersLeave()
{
    crowdIn();
    const int served = m_served;
    m_clients[0].reset();
    QTRY_VERIFY(m_served > served);
    for (std::size_t i = 1; i < m_clients.size() / 2; ++i)
        m_clients[i].reset();
    QTRY_COMPARE(m_served, crowd);
}

// More clients than the process has room for, all of them connected as far as they can tell.
void tst_ClientListener::crowdIn()
{
    m_limit.emplace(room);
    QVERIFY(m_limit->isSet());
    m_listener = std::make_unique<ClientListener>(nullptr);
    QVERIFY(m_listener->listenOn(anyFreePort));
    serveClients();
    for (int i = 0; i < crowd; ++i) {
        addClient();
        QTest::qWait(1);
    }
    QVERIFY(m_served > crowd / 2);
    QVERIFY(m_served < crowd);
}

// Reads what comes, and lets go of who leaves.
void tst_ClientListener::serveClients()
{
    connect(m_listener.get(), &QTcpServer::newConnection, this, [this] {
        ClientSocket *socket = nextClient();
        ++m_served;
        connect(socket, &QTcpSocket::readyRead, socket, [socket] { socket->read(1); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    });
}

void tst_ClientListener::addClient()
{
    m_clients.push_back(
        std::make_unique<ClientEnd>(ClientEnd::connectTo(m_listener->serverPort())));
}

void tst_ClientListener::peersThatAreSilentForMinutesAreGivenUp()
{
    serveClients();
    addClient();
    addClient();
    QTRY_COMPARE(m_served, 2);
    const auto timers = m_listener->findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
    QCOMPARE(timers.size(), 1);
    QVERIFY(timers.first()->isActive());
    QVERIFY(!timers.first()->isSingleShot());
    // What is found a check late is gone within five minutes all the same.
    QVERIFY(timers.first()->interval() <= 20'000);
    const auto check = [&] { QVERIFY(QMetaObject::invokeMethod(timers.first(), "timeout")); };

    s_heardMsAgo = 240'000;
    check();
    QTest::qWait(50);
    QVERIFY(!m_clients[0]->hasEnded());
    QVERIFY(!m_clients[1]->hasEnded());

    s_heardMsAgo = 280'000;
    check();
    QTRY_VERIFY(m_clients[0]->hasEnded());
    QTRY_VERIFY(m_clients[1]->hasEnded());
}

void tst_ClientListener::listenerTakesItsClientsAlong()
{
    ClientEnd client(ClientEnd::connectTo(m_listener->serverPort()));
    QTRY_VERIFY(m_listener->hasPendingConnections());
    const QPointer<ClientSocket> socket(nextClient());
    QVERIFY(socket);
    m_listener.reset();
    QVERIFY(socket.isNull());
    QTRY_VERIFY(client.hasEnded());
}

QTEST_GUILESS_MAIN(tst_ClientListener)
#include "tst_clientlistener.moc"
