#include "clientlistener.h"

#include "clientconnection.h"
#include "clientend.h"
#include "logcapture.h"

#include <QAbstractEventDispatcher>
#include <QHostAddress>
#include <QPointer>
#include <QTcpSocket>
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
// Both ends of each client's connection use a descriptor of this process.
constexpr int moreDescriptors = 100;
constexpr int manyClients = 45;

// Replaces the kernel's time since the last sign of life of each peer.
std::optional<quint32> s_heardMsAgo;

// The error of every accept4(); 0 for none. The connection stays in the queue.
int s_acceptError = 0;
// The error of the next accept4() only. It takes a connection out of the queue and drops it.
int s_connectionError = 0;
int s_failedAccepts = 0;

// Limits the process to `count` more descriptors until this object is destroyed.
class DescriptorLimit
{
public:
    explicit DescriptorLimit(int count)
    {
        ::getrlimit(RLIMIT_NOFILE, &m_before);
        // The kernel assigns the lowest free numbers. Higher ones may already be in use.
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

// Returns the listening socket of this process, or -1.
int listeningDescriptor()
{
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        int listens = 0;
        socklen_t length = sizeof listens;
        if (::getsockopt(descriptor, SOL_SOCKET, SO_ACCEPTCONN, &listens, &length) == 0 &&
            listens != 0)
            return descriptor;
    }
    return -1;
}

// Returns how many more descriptors the process can open, at most `atMost`.
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

// Replaces the function of the C library: a peer may be silent for longer than a test can wait.
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

// Replaces the function of the C library: a healthy machine does not report these errors.
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
    void queueHasTheSystemsLength();
    void everyConnectionIsAnnounced();
    void acceptsAfterTheFirstConnectionFoundNoDescriptor();
    void acceptsAfterAllDescriptorsWereInUse();
    void pausesWhileAcceptFails_data();
    void pausesWhileAcceptFails();
    void errorOfOneConnectionDoesNotDelayTheNext_data();
    void errorOfOneConnectionDoesNotDelayTheNext();
    void clientsLeaveDescriptorsForTheLine();
    void sleepsWhileClientsWaitForADescriptor();
    void waitingClientsAreAcceptedAsOthersLeave();
    void peersThatAreSilentForMinutesAreShutDown();
    void deletedListenerClosesItsConnections();

private:
    void listenAndServe();
    void addClient();
    void connectMoreClientsThanDescriptors();

    std::unique_ptr<LogCapture> m_log;
    std::vector<std::unique_ptr<ClientEnd>> m_clients;
    std::optional<DescriptorLimit> m_limit;
    int m_accepted = 0;
    QPointer<ClientConnection> m_lastAccepted;
    std::unique_ptr<ClientListener> m_listener;
};

void tst_ClientListener::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
    // UBSan opens a pipe to check an object of a class for the first time. Later tests leave no
    // descriptor, so one client is accepted after a pause, and leaves, before them.
    listenAndServe();
    s_acceptError = EMFILE;
    addClient();
    QTRY_VERIFY(s_failedAccepts > 0);
    s_acceptError = 0;
    QTRY_COMPARE(m_accepted, 1);
    m_clients.clear();
    QTRY_VERIFY(m_lastAccepted.isNull());
    cleanup();
}

void tst_ClientListener::init()
{
    m_log->clear();
    listenAndServe();
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

// Starts a listener. Reads its connections and deletes those that end.
void tst_ClientListener::listenAndServe()
{
    m_accepted = 0;
    m_listener = std::make_unique<ClientListener>(nullptr);
    connect(m_listener.get(), &ClientListener::newConnection, this,
            [this](ClientConnection *connection) {
                ++m_accepted;
                m_lastAccepted = connection;
                connect(connection, &ClientConnection::readable, connection, [connection] {
                    char byte = 0;
                    connection->read(&byte, 1);
                });
                connect(connection, &ClientConnection::ended, connection, &QObject::deleteLater);
            });
    QVERIFY(m_listener->listenOn(anyFreePort));
}

void tst_ClientListener::portThatIsTakenIsNotListenedOn()
{
    ClientListener second(nullptr);
    QVERIFY(!second.listenOn(m_listener->port()));
}

void tst_ClientListener::listensOnAllAddressesOfBothFamilies()
{
    QTcpSocket client;
    for (const auto address : {QHostAddress::LocalHost, QHostAddress::LocalHostIPv6}) {
        client.connectToHost(QHostAddress(address), m_listener->port());
        QTRY_COMPARE(client.state(), QAbstractSocket::ConnectedState);
        client.abort();
    }
}

void tst_ClientListener::queueHasTheSystemsLength()
{
    int systemsLimit = 0;
    std::ifstream("/proc/sys/net/core/somaxconn") >> systemsLimit;
    QVERIFY(systemsLimit > 0);
    // For a listening socket this field is the length of its queue.
    tcp_info info{};
    socklen_t length = sizeof info;
    QCOMPARE(::getsockopt(listeningDescriptor(), IPPROTO_TCP, TCP_INFO, &info, &length), 0);
    QCOMPARE(static_cast<int>(info.tcpi_sacked), std::min(4096, systemsLimit));
}

void tst_ClientListener::everyConnectionIsAnnounced()
{
    for (int i = 0; i < 100; ++i)
        addClient();
    QTRY_COMPARE(m_accepted, 100);
    QTest::qWait(20);
    QCOMPARE(m_accepted, 100);
}

void tst_ClientListener::acceptsAfterTheFirstConnectionFoundNoDescriptor()
{
    // The client's own end uses the last descriptor.
    std::optional<DescriptorLimit> limit(1);
    QVERIFY(limit->isSet());
    ClientEnd client(ClientEnd::connectTo(m_listener->port()));
    QTRY_VERIFY(s_failedAccepts > 0);
    QCOMPARE(m_accepted, 0);

    limit.reset();

    QTRY_COMPARE(m_accepted, 1);
}

void tst_ClientListener::acceptsAfterAllDescriptorsWereInUse()
{
    addClient();
    QTRY_COMPARE(m_accepted, 1);
    // Two clients' own ends and one accepted connection use these descriptors.
    m_limit.emplace(3);
    QVERIFY(m_limit->isSet());
    addClient();
    addClient();
    QTRY_COMPARE(m_accepted, 2);
    QCOMPARE(freeDescriptors(1), 0);

    m_clients.front().reset();

    QTRY_COMPARE(m_accepted, 3);
}

void tst_ClientListener::pausesWhileAcceptFails_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("the process has no descriptor left") << EMFILE;
    QTest::newRow("the system has no descriptor left") << ENFILE;
    QTest::newRow("no buffers") << ENOBUFS;
    QTest::newRow("no memory") << ENOMEM;
    QTest::newRow("not permitted") << EPERM;
}

void tst_ClientListener::pausesWhileAcceptFails()
{
    QFETCH(int, error);
    addClient();
    QTRY_COMPARE(m_accepted, 1);
    s_acceptError = error;
    addClient();
    QTRY_VERIFY(s_failedAccepts > 0);
    QTest::qWait(600);
    QVERIFY2(s_failedAccepts <= 3, qPrintable(QString::number(s_failedAccepts)));
    QCOMPARE(m_accepted, 1);

    s_acceptError = 0;

    QTRY_COMPARE(m_accepted, 2);
}

void tst_ClientListener::errorOfOneConnectionDoesNotDelayTheNext_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("aborted") << ECONNABORTED;
    QTest::newRow("interrupted") << EINTR;
    QTest::newRow("protocol error") << EPROTO;
    QTest::newRow("unreachable") << EHOSTUNREACH;
}

void tst_ClientListener::errorOfOneConnectionDoesNotDelayTheNext()
{
    QFETCH(int, error);
    s_connectionError = error;
    addClient();
    addClient();
    QTRY_COMPARE_WITH_TIMEOUT(m_accepted, 1, 400);
    QCOMPARE(s_failedAccepts, 1);
}

void tst_ClientListener::clientsLeaveDescriptorsForTheLine()
{
    connectMoreClientsThanDescriptors();
    // The serial port, its lock file and the pipes of a child process need descriptors.
    QCOMPARE(freeDescriptors(8), 8);
}

void tst_ClientListener::sleepsWhileClientsWaitForADescriptor()
{
    connectMoreClientsThanDescriptors();
    int wakeUps = 0;
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake,
            m_listener.get(), [&] { ++wakeUps; });
    QTest::qWait(600);

    // qWait() itself wakes up every few milliseconds.
    QVERIFY2(wakeUps < 600, qPrintable(QString::number(wakeUps)));
}

void tst_ClientListener::waitingClientsAreAcceptedAsOthersLeave()
{
    connectMoreClientsThanDescriptors();
    const int served = m_accepted;
    m_clients[0].reset();
    QTRY_VERIFY(m_accepted > served);
    for (std::size_t i = 1; i < m_clients.size() / 2; ++i)
        m_clients[i].reset();
    QTRY_COMPARE(m_accepted, manyClients);
}

// Connects more clients than the process has descriptors for. The kernel's queue holds the rest.
void tst_ClientListener::connectMoreClientsThanDescriptors()
{
    m_limit.emplace(moreDescriptors);
    QVERIFY(m_limit->isSet());
    listenAndServe();
    for (int i = 0; i < manyClients; ++i) {
        addClient();
        QTest::qWait(1);
    }
    QVERIFY(m_accepted > manyClients / 2);
    QVERIFY(m_accepted < manyClients);
}

void tst_ClientListener::addClient()
{
    m_clients.push_back(std::make_unique<ClientEnd>(ClientEnd::connectTo(m_listener->port())));
}

void tst_ClientListener::peersThatAreSilentForMinutesAreShutDown()
{
    addClient();
    addClient();
    QTRY_COMPARE(m_accepted, 2);
    auto *timer = m_listener->findChild<QTimer *>();
    QVERIFY(timer->isActive() && !timer->isSingleShot());
    // With one interval of delay, a silent peer is still shut down within five minutes.
    QVERIFY(timer->interval() <= 20'000);
    const auto check = [&] { QVERIFY(QMetaObject::invokeMethod(timer, "timeout")); };

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

void tst_ClientListener::deletedListenerClosesItsConnections()
{
    ClientEnd client(ClientEnd::connectTo(m_listener->port()));
    QTRY_VERIFY(m_lastAccepted);
    m_listener.reset();
    QVERIFY(m_lastAccepted.isNull());
    QTRY_VERIFY(client.hasEnded());
}

QTEST_GUILESS_MAIN(tst_ClientListener)
#include "tst_clientlistener.moc"
