#include "servicenotifier.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QTest>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int periodMs = 200;
constexpr int intervalMs = periodMs / 2;

/// The service manager's end: a socket of datagrams.
class Manager
{
public:
    /// `name` begins with a slash, or with @ for an abstract socket.
    explicit Manager(const QByteArray &name)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
        std::size_t length =
            offsetof(sockaddr_un, sun_path) + static_cast<std::size_t>(name.size());
        if (name.startsWith('@'))
            address.sun_path[0] = '\0';
        else
            ++length;
        m_isBound = ::bind(m_socket, reinterpret_cast<const sockaddr *>(&address),
                           static_cast<socklen_t>(length)) == 0;
    }
    ~Manager() { ::close(m_socket); }
    Manager(const Manager &) = delete;
    Manager &operator=(const Manager &) = delete;

    bool isBound() const { return m_isBound; }

    /// Returns the datagrams that have arrived, in their order.
    QList<QByteArray> messages() const
    {
        QList<QByteArray> received;
        std::array<char, 64> bytes{};
        ssize_t count = 0;
        while ((count = ::recv(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT)) >= 0)
            received.append({bytes.data(), static_cast<int>(count)});
        return received;
    }

private:
    int m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    bool m_isBound = false;
};

int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries)
        .size();
}

} // namespace

class tst_ServiceNotifier : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void readyIsOneDatagram_data();
    void readyIsOneDatagram();
    void withoutAManagerNothingIsOpened_data();
    void withoutAManagerNothingIsOpened();
    void childProcessesGetNoVariables();
    void regularNotificationsFollowReady();
    void unusablePeriodMeansNoRegularNotifications_data();
    void unusablePeriodMeansNoRegularNotifications();
    void periodOfAnotherProcessDoesNotCount();
    void blockingCodeNotifiesWhenItIsDue();
    void blockingCodeNotifiesNobodyWithoutAPeriod();
    void managerThatDoesNotReadCannotBlockTheEventLoop();
    void managerThatHasEndedDoesNoHarm();

private:
    QByteArray path() const { return m_folder->filePath(QStringLiteral("notify")).toLocal8Bit(); }
    /// Gives this process the variables of a manager that expects regular notifications.
    void setVariables(const QByteArray &period = QByteArray::number(periodMs * 1000));

    std::unique_ptr<QTemporaryDir> m_folder;
};

void tst_ServiceNotifier::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    QVERIFY(m_folder->isValid());
}

void tst_ServiceNotifier::cleanup()
{
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        qunsetenv(name);
}

void tst_ServiceNotifier::setVariables(const QByteArray &period)
{
    qputenv("NOTIFY_SOCKET", path());
    qputenv("WATCHDOG_USEC", period);
    qputenv("WATCHDOG_PID", QByteArray::number(::getpid()));
}

void tst_ServiceNotifier::readyIsOneDatagram_data()
{
    QTest::addColumn<bool>("isAbstract");
    QTest::newRow("path") << false;
    QTest::newRow("abstract") << true;
}

void tst_ServiceNotifier::readyIsOneDatagram()
{
    QFETCH(bool, isAbstract);
    const QByteArray name =
        isAbstract ? "@gripperd-test-" + QByteArray::number(::getpid()) : path();
    const Manager manager(name);
    QVERIFY(manager.isBound());
    qputenv("NOTIFY_SOCKET", name);
    ServiceNotifier notifier;
    QCOMPARE(manager.messages(), QList<QByteArray>());
    notifier.notifyReady();
    QCOMPARE(manager.messages(), QList<QByteArray>{"READY=1"});
    QTest::qWait(2 * periodMs);
    QCOMPARE(manager.messages(), QList<QByteArray>());
}

void tst_ServiceNotifier::withoutAManagerNothingIsOpened_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("none") << QByteArray();
    QTest::newRow("relative path") << QByteArray("notify");
    QTest::newRow("too long") << QByteArray("/" + QByteArray(107, 'x'));
}

void tst_ServiceNotifier::withoutAManagerNothingIsOpened()
{
    QFETCH(QByteArray, name);
    setVariables();
    if (name.isNull())
        qunsetenv("NOTIFY_SOCKET");
    else
        qputenv("NOTIFY_SOCKET", name);
    const int before = openDescriptors();
    ServiceNotifier notifier;
    notifier.notifyReady();
    ServiceNotifier::notifyWhileBlocking();
    QCOMPARE(openDescriptors(), before);
}

void tst_ServiceNotifier::childProcessesGetNoVariables()
{
    setVariables();
    const ServiceNotifier notifier;
    for (const char *name : {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"})
        QVERIFY2(!qEnvironmentVariableIsSet(name), name);
}

void tst_ServiceNotifier::regularNotificationsFollowReady()
{
    const Manager manager(path());
    setVariables();
    ServiceNotifier notifier;
    QTest::qWait(periodMs);
    QCOMPARE(manager.messages(), QList<QByteArray>());
    QElapsedTimer sinceReady;
    sinceReady.start();
    notifier.notifyReady();
    QList<QByteArray> received;
    QTRY_VERIFY((received += manager.messages()).size() >= 4);
    QCOMPARE(received.mid(0, 4),
             (QList<QByteArray>{"READY=1", "WATCHDOG=1", "WATCHDOG=1", "WATCHDOG=1"}));
    // A coarse timer may fire 5 % early.
    QVERIFY(sinceReady.elapsed() >= 3 * intervalMs * 9 / 10);
}

void tst_ServiceNotifier::unusablePeriodMeansNoRegularNotifications_data()
{
    QTest::addColumn<QByteArray>("period");
    for (const char *period : {"", "0", "-200000", "soon"})
        QTest::newRow(period) << QByteArray(period);
}

void tst_ServiceNotifier::unusablePeriodMeansNoRegularNotifications()
{
    QFETCH(QByteArray, period);
    const Manager manager(path());
    setVariables(period);
    ServiceNotifier notifier;
    notifier.notifyReady();
    QTest::qWait(periodMs);
    QCOMPARE(manager.messages(), QList<QByteArray>{"READY=1"});
}

void tst_ServiceNotifier::periodOfAnotherProcessDoesNotCount()
{
    const Manager manager(path());
    setVariables();
    qputenv("WATCHDOG_PID", QByteArray::number(::getppid()));
    ServiceNotifier notifier;
    notifier.notifyReady();
    QTest::qWait(periodMs);
    QCOMPARE(manager.messages(), QList<QByteArray>{"READY=1"});
}

void tst_ServiceNotifier::blockingCodeNotifiesWhenItIsDue()
{
    const Manager manager(path());
    setVariables();
    ServiceNotifier notifier;
    notifier.notifyReady();
    QElapsedTimer blocked;
    blocked.start();
    while (blocked.elapsed() < 3 * intervalMs) {
        ServiceNotifier::notifyWhileBlocking();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const QList<QByteArray> received = manager.messages();
    QVERIFY2(received.size() >= 2 && received.size() <= 4, QByteArray::number(received.size()));
    QCOMPARE(received.last(), QByteArray("WATCHDOG=1"));
}

void tst_ServiceNotifier::blockingCodeNotifiesNobodyWithoutAPeriod()
{
    const Manager manager(path());
    setVariables("0");
    ServiceNotifier notifier;
    notifier.notifyReady();
    ServiceNotifier::notifyWhileBlocking();
    QCOMPARE(manager.messages(), QList<QByteArray>{"READY=1"});
}

void tst_ServiceNotifier::managerThatDoesNotReadCannotBlockTheEventLoop()
{
    const Manager manager(path());
    // The kernel queues ten datagrams, or a few hundred if the machine is set up so.
    setVariables("2000");
    ServiceNotifier notifier;
    notifier.notifyReady();
    QElapsedTimer running;
    running.start();
    qint64 longestBlockMs = 0;
    while (running.elapsed() < 1500) {
        QElapsedTimer turn;
        turn.start();
        QCoreApplication::processEvents();
        longestBlockMs = std::max(longestBlockMs, turn.elapsed());
    }
    QVERIFY2(longestBlockMs < 500, QByteArray::number(longestBlockMs));
    const int queued = manager.messages().size();
    QVERIFY2(queued < 1000, QByteArray::number(queued));
    QVERIFY(QTest::qWaitFor([&] { return manager.messages().contains("WATCHDOG=1"); }));
}

void tst_ServiceNotifier::managerThatHasEndedDoesNoHarm()
{
    auto manager = std::make_unique<Manager>(path());
    setVariables();
    ServiceNotifier notifier;
    notifier.notifyReady();
    QCOMPARE(manager->messages(), QList<QByteArray>{"READY=1"});
    manager.reset();
    QTest::qWait(periodMs);
    QVERIFY(::unlink(path().constData()) == 0);
    const Manager next(path());
    QVERIFY(next.isBound());
    QVERIFY(QTest::qWaitFor([&] { return next.messages().contains("WATCHDOG=1"); }));
}

QTEST_GUILESS_MAIN(tst_ServiceNotifier)
#include "tst_servicenotifier.moc"
