#include "socketpoller.h"

#include "clientend.h"

#include <QAbstractEventDispatcher>
#include <QTest>

#include <cerrno>
#include <functional>
#include <memory>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace {

bool s_waitFails = false;
int s_failedWaits = 0;
bool s_removalFails = false;

// Counts the events of one end of a connection. `peer` is the other end.
class TestListener final : public SocketPoller::Listener
{
public:
    explicit TestListener(SocketPoller &poller)
        : TestListener(poller, localPair())
    {
    }

    ~TestListener()
    {
        registration.reset();
        ::close(m_descriptor);
    }

    Q_DISABLE_COPY_MOVE(TestListener)

    void onReadable() override
    {
        ++readable;
        if (whenReadable)
            whenReadable();
    }

    void onWritable() override { ++writable; }

    void readBytes()
    {
        char bytes[64];
        [[maybe_unused]] const auto count = ::read(m_descriptor, bytes, sizeof bytes);
    }

    int readable = 0;
    int writable = 0;
    std::function<void()> whenReadable;
    ClientEnd peer;
    std::unique_ptr<SocketPoller::Registration> registration;

private:
    TestListener(SocketPoller &poller, DescriptorPair ends)
        : peer(ends.clientEnd)
        , m_descriptor(ends.serverEnd)
    {
        registration = std::make_unique<SocketPoller::Registration>(poller, ends.serverEnd, *this);
    }

    int m_descriptor;
};

void runEventLoop()
{
    QCoreApplication::processEvents();
}

} // namespace

// These functions replace those of the C library, which do not fail in a healthy process.
extern "C" int epoll_wait(int epoll, epoll_event *events, int maxEvents, int timeoutMs)
{
    if (!s_waitFails)
        return static_cast<int>(
            ::syscall(SYS_epoll_pwait, epoll, events, maxEvents, timeoutMs, nullptr, 0));
    ++s_failedWaits;
    errno = EINTR;
    return -1;
}

extern "C" int epoll_ctl(int epoll, int operation, int descriptor, epoll_event *event) noexcept
{
    if (!s_removalFails || operation != EPOLL_CTL_DEL)
        return static_cast<int>(::syscall(SYS_epoll_ctl, epoll, operation, descriptor, event));
    errno = ENOMEM;
    return -1;
}

/// Every socket is one end of a local connection.
class tst_SocketPoller : public QObject
{
    Q_OBJECT

private slots:
    void socketWithoutInterestsReceivesNoEvents();
    void readableRepeatsUntilTheBytesAreRead();
    void writableRepeatsUntilTheInterestEnds();
    void brokenConnectionIsReadableAndWritable_data();
    void brokenConnectionIsReadableAndWritable();
    void brokenConnectionWithoutInterestsDoesNotWakeTheLoop();
    void moreSocketsThanOneBatchReceiveTheirEvents();
    void removedSocketReceivesNoEventOfTheSameBatch_data();
    void removedSocketReceivesNoEventOfTheSameBatch();
    void listenerMayRemoveItsOwnSocket();
    void nestedLoopDispatchesTheRestOfTheBatch();
    void nestedLoopDispatchesToNewSockets();
    void timersRunBetweenBatches();
    void pausesWhileEpollWaitFails();

private:
    SocketPoller m_poller{nullptr};
};

void tst_SocketPoller::socketWithoutInterestsReceivesNoEvents()
{
    TestListener listener(m_poller);
    listener.peer.send("x");
    runEventLoop();
    listener.registration->setInterests(SocketPoller::Readable);
    listener.registration->setInterests(SocketPoller::Nothing);
    runEventLoop();
    QCOMPARE(listener.readable, 0);
    QCOMPARE(listener.writable, 0);
}

void tst_SocketPoller::readableRepeatsUntilTheBytesAreRead()
{
    TestListener listener(m_poller);
    listener.registration->setInterests(SocketPoller::Readable);
    runEventLoop();
    QCOMPARE(listener.readable, 0);
    listener.peer.send("x");
    runEventLoop();
    runEventLoop();
    QCOMPARE(listener.readable, 2);
    listener.readBytes();
    runEventLoop();
    QCOMPARE(listener.readable, 2);
    QCOMPARE(listener.writable, 0);
}

void tst_SocketPoller::writableRepeatsUntilTheInterestEnds()
{
    TestListener listener(m_poller);
    listener.registration->setInterests(SocketPoller::Readable | SocketPoller::Writable);
    runEventLoop();
    runEventLoop();
    QCOMPARE(listener.writable, 2);
    listener.registration->setInterests(SocketPoller::Readable);
    runEventLoop();
    QCOMPARE(listener.writable, 2);
    QCOMPARE(listener.readable, 0);
}

void tst_SocketPoller::brokenConnectionIsReadableAndWritable_data()
{
    QTest::addColumn<int>("interests");
    QTest::addColumn<int>("readable");
    QTest::addColumn<int>("writable");
    QTest::newRow("reading") << int(SocketPoller::Readable) << 1 << 0;
    QTest::newRow("writing") << int(SocketPoller::Writable) << 0 << 1;
    QTest::newRow("both") << int(SocketPoller::Readable | SocketPoller::Writable) << 1 << 1;
}

void tst_SocketPoller::brokenConnectionIsReadableAndWritable()
{
    QFETCH(int, interests);
    TestListener listener(m_poller);
    listener.peer.close();
    listener.registration->setInterests(SocketPoller::Interests(interests));
    runEventLoop();
    QTEST(listener.readable, "readable");
    QTEST(listener.writable, "writable");
}

void tst_SocketPoller::brokenConnectionWithoutInterestsDoesNotWakeTheLoop()
{
    TestListener listener(m_poller);
    listener.registration->setInterests(SocketPoller::Readable);
    listener.registration->setInterests(SocketPoller::Nothing);
    listener.peer.close();
    int wakeUps = 0;
    const auto counting = connect(QAbstractEventDispatcher::instance(),
                                  &QAbstractEventDispatcher::awake, this, [&] { ++wakeUps; });
    QTest::qWait(100);
    disconnect(counting);
    QVERIFY2(wakeUps < 50, qPrintable(QString::number(wakeUps)));
}

void tst_SocketPoller::moreSocketsThanOneBatchReceiveTheirEvents()
{
    std::vector<std::unique_ptr<TestListener>> listeners;
    for (int i = 0; i < 300; ++i) {
        listeners.push_back(std::make_unique<TestListener>(m_poller));
        listeners.back()->registration->setInterests(SocketPoller::Readable);
        listeners.back()->peer.send("x");
        listeners.back()->whenReadable = [listener = listeners.back().get()] {
            listener->readBytes();
        };
    }
    for (int passes = 0; passes < 5; ++passes)
        runEventLoop();
    for (const auto &listener : listeners)
        QCOMPARE(listener->readable, 1);
}

void tst_SocketPoller::removedSocketReceivesNoEventOfTheSameBatch_data()
{
    QTest::addColumn<bool>("removalFails");
    QTest::newRow("the kernel removes it") << false;
    QTest::newRow("the kernel keeps it") << true;
}

void tst_SocketPoller::removedSocketReceivesNoEventOfTheSameBatch()
{
    QFETCH(bool, removalFails);
    s_removalFails = removalFails;
    int events = 0;
    auto one = std::make_unique<TestListener>(m_poller);
    auto other = std::make_unique<TestListener>(m_poller);
    for (auto *listener : {&one, &other}) {
        auto &rest = listener == &one ? other : one;
        (*listener)->registration->setInterests(SocketPoller::Readable);
        (*listener)->peer.send("x");
        (*listener)->whenReadable = [&events, &rest] {
            ++events;
            rest.reset();
        };
    }
    runEventLoop();
    s_removalFails = false;
    QCOMPARE(events, 1);
    QVERIFY(!one || !other);
}

void tst_SocketPoller::listenerMayRemoveItsOwnSocket()
{
    TestListener listener(m_poller);
    listener.registration->setInterests(SocketPoller::Readable | SocketPoller::Writable);
    listener.peer.send("x");
    listener.whenReadable = [&] { listener.registration.reset(); };
    runEventLoop();
    runEventLoop();
    QCOMPARE(listener.readable, 1);
}

void tst_SocketPoller::nestedLoopDispatchesTheRestOfTheBatch()
{
    TestListener one(m_poller);
    TestListener other(m_poller);
    int eventsInside = 0;
    for (TestListener *listener : {&one, &other}) {
        TestListener *rest = listener == &one ? &other : &one;
        listener->registration->setInterests(SocketPoller::Readable);
        listener->peer.send("x");
        listener->whenReadable = [&eventsInside, listener, rest] {
            listener->readBytes();
            const int before = rest->readable;
            runEventLoop();
            eventsInside += rest->readable - before;
        };
    }
    runEventLoop();
    QCOMPARE(one.readable, 1);
    QCOMPARE(other.readable, 1);
    QCOMPARE(eventsInside, 1);
}

void tst_SocketPoller::nestedLoopDispatchesToNewSockets()
{
    TestListener waiting(m_poller);
    waiting.registration->setInterests(SocketPoller::Readable);
    waiting.peer.send("x");
    int eventsInside = 0;
    waiting.whenReadable = [&] {
        waiting.readBytes();
        TestListener fresh(m_poller);
        fresh.registration->setInterests(SocketPoller::Readable);
        fresh.peer.send("x");
        runEventLoop();
        eventsInside = fresh.readable;
    };
    runEventLoop();
    QCOMPARE(eventsInside, 1);
}

void tst_SocketPoller::timersRunBetweenBatches()
{
    TestListener busy(m_poller);
    busy.registration->setInterests(SocketPoller::Readable);
    busy.peer.send("x");
    QTest::qWait(30);
    QVERIFY(busy.readable > 1);
}

void tst_SocketPoller::pausesWhileEpollWaitFails()
{
    TestListener listener(m_poller);
    listener.registration->setInterests(SocketPoller::Readable);
    listener.whenReadable = [&] { listener.readBytes(); };
    s_waitFails = true;
    listener.peer.send("x");
    QTest::qWait(200);
    s_waitFails = false;
    QVERIFY2(s_failedWaits > 0 && s_failedWaits < 30, qPrintable(QString::number(s_failedWaits)));
    QCOMPARE(listener.readable, 0);

    QTRY_COMPARE(listener.readable, 1);
}

QTEST_GUILESS_MAIN(tst_SocketPoller)
#include "tst_socketpoller.moc"
