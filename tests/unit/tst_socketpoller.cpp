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

// One end of a connection that counts what it is told, and the other end, which makes it happen.
class Ear final : public SocketPoller::Listener
{
public:
    explicit Ear(SocketPoller &poller)
        : Ear(poller, localPair())
    {
    }

    ~Ear()
    {
        registration.reset();
        ::close(m_descriptor);
    }

    Q_DISABLE_COPY_MOVE(Ear)

    void onReadable() override
    {
        ++readable;
        if (whenReadable)
            whenReadable();
    }

    void onWritable() override { ++writable; }

    void takeBytes()
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
    Ear(SocketPoller &poller, DescriptorPair ends)
        : peer(ends.clientEnd)
        , m_descriptor(ends.serverEnd)
    {
        registration = std::make_unique<SocketPoller::Registration>(poller, ends.serverEnd, *this);
    }

    int m_descriptor;
};

void turn()
{
    QCoreApplication::processEvents();
}

} // namespace

// In place of the C library's: in a healthy process neither of these two fails.
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
    void nothingIsToldUnasked();
    void readableIsToldUntilItIsRead();
    void writableIsToldAsLongAsItIsAskedFor();
    void brokenConnectionIsToldToWhoeverWaits_data();
    void brokenConnectionIsToldToWhoeverWaits();
    void brokenConnectionOfWhoWaitsForNothingKeepsNobodyAwake();
    void moreSocketsThanOneBatchAreAllTold();
    void goneSocketIsNotToldFromTheSameBatch_data();
    void goneSocketIsNotToldFromTheSameBatch();
    void socketMayGoWhileItIsTold();
    void restOfTheBatchIsToldFromInsideANestedLoop();
    void newSocketsAreToldInsideANestedLoop();
    void timersHaveTheirTurnBetweenBatches();
    void restsWhileTheKernelReportsNothing();

private:
    SocketPoller m_poller{nullptr};
};

void tst_SocketPoller::nothingIsToldUnasked()
{
    Ear ear(m_poller);
    ear.peer.send("x");
    turn();
    ear.registration->setInterests(SocketPoller::Readable);
    ear.registration->setInterests(SocketPoller::Nothing);
    turn();
    QCOMPARE(ear.readable, 0);
    QCOMPARE(ear.writable, 0);
}

void tst_SocketPoller::readableIsToldUntilItIsRead()
{
    Ear ear(m_poller);
    ear.registration->setInterests(SocketPoller::Readable);
    turn();
    QCOMPARE(ear.readable, 0);
    ear.peer.send("x");
    turn();
    turn();
    QCOMPARE(ear.readable, 2);
    ear.takeBytes();
    turn();
    QCOMPARE(ear.readable, 2);
    QCOMPARE(ear.writable, 0);
}

void tst_SocketPoller::writableIsToldAsLongAsItIsAskedFor()
{
    Ear ear(m_poller);
    ear.registration->setInterests(SocketPoller::Readable | SocketPoller::Writable);
    turn();
    turn();
    QCOMPARE(ear.writable, 2);
    ear.registration->setInterests(SocketPoller::Readable);
    turn();
    QCOMPARE(ear.writable, 2);
    QCOMPARE(ear.readable, 0);
}

void tst_SocketPoller::brokenConnectionIsToldToWhoeverWaits_data()
{
    QTest::addColumn<int>("interests");
    QTest::addColumn<int>("readable");
    QTest::addColumn<int>("writable");
    QTest::newRow("for bytes") << int(SocketPoller::Readable) << 1 << 0;
    QTest::newRow("for room") << int(SocketPoller::Writable) << 0 << 1;
    QTest::newRow("for both") << int(SocketPoller::Readable | SocketPoller::Writable) << 1 << 1;
}

void tst_SocketPoller::brokenConnectionIsToldToWhoeverWaits()
{
    QFETCH(int, interests);
    Ear ear(m_poller);
    ear.peer.close();
    ear.registration->setInterests(SocketPoller::Interests(interests));
    turn();
    QTEST(ear.readable, "readable");
    QTEST(ear.writable, "writable");
}

void tst_SocketPoller::brokenConnectionOfWhoWaitsForNothingKeepsNobodyAwake()
{
    Ear ear(m_poller);
    ear.registration->setInterests(SocketPoller::Readable);
    ear.registration->setInterests(SocketPoller::Nothing);
    ear.peer.close();
    int wakeUps = 0;
    const auto counting = connect(QAbstractEventDispatcher::instance(),
                                  &QAbstractEventDispatcher::awake, this, [&] { ++wakeUps; });
    QTest::qWait(100);
    disconnect(counting);
    QVERIFY2(wakeUps < 50, qPrintable(QString::number(wakeUps)));
}

void tst_SocketPoller::moreSocketsThanOneBatchAreAllTold()
{
    std::vector<std::unique_ptr<Ear>> ears;
    for (int i = 0; i < 300; ++i) {
        ears.push_back(std::make_unique<Ear>(m_poller));
        ears.back()->registration->setInterests(SocketPoller::Readable);
        ears.back()->peer.send("x");
        ears.back()->whenReadable = [ear = ears.back().get()] { ear->takeBytes(); };
    }
    for (int turns = 0; turns < 5; ++turns)
        turn();
    for (const auto &ear : ears)
        QCOMPARE(ear->readable, 1);
}

void tst_SocketPoller::goneSocketIsNotToldFromTheSameBatch_data()
{
    QTest::addColumn<bool>("removalFails");
    QTest::newRow("the kernel forgets it") << false;
    QTest::newRow("the kernel keeps it") << true;
}

void tst_SocketPoller::goneSocketIsNotToldFromTheSameBatch()
{
    QFETCH(bool, removalFails);
    s_removalFails = removalFails;
    int told = 0;
    auto one = std::make_unique<Ear>(m_poller);
    auto other = std::make_unique<Ear>(m_poller);
    for (auto *ear : {&one, &other}) {
        auto &rest = ear == &one ? other : one;
        (*ear)->registration->setInterests(SocketPoller::Readable);
        (*ear)->peer.send("x");
        (*ear)->whenReadable = [&told, &rest] {
            ++told;
            rest.reset();
        };
    }
    turn();
    s_removalFails = false;
    QCOMPARE(told, 1);
    QVERIFY(!one || !other);
}

void tst_SocketPoller::socketMayGoWhileItIsTold()
{
    Ear ear(m_poller);
    ear.registration->setInterests(SocketPoller::Readable | SocketPoller::Writable);
    ear.peer.send("x");
    ear.whenReadable = [&] { ear.registration.reset(); };
    turn();
    turn();
    QCOMPARE(ear.readable, 1);
}

void tst_SocketPoller::restOfTheBatchIsToldFromInsideANestedLoop()
{
    Ear one(m_poller);
    Ear other(m_poller);
    int toldInside = 0;
    for (Ear *ear : {&one, &other}) {
        Ear *rest = ear == &one ? &other : &one;
        ear->registration->setInterests(SocketPoller::Readable);
        ear->peer.send("x");
        ear->whenReadable = [&toldInside, ear, rest] {
            ear->takeBytes();
            const int before = rest->readable;
            turn();
            toldInside += rest->readable - before;
        };
    }
    turn();
    QCOMPARE(one.readable, 1);
    QCOMPARE(other.readable, 1);
    QCOMPARE(toldInside, 1);
}

void tst_SocketPoller::newSocketsAreToldInsideANestedLoop()
{
    Ear waiting(m_poller);
    waiting.registration->setInterests(SocketPoller::Readable);
    waiting.peer.send("x");
    int toldInside = 0;
    waiting.whenReadable = [&] {
        waiting.takeBytes();
        Ear fresh(m_poller);
        fresh.registration->setInterests(SocketPoller::Readable);
        fresh.peer.send("x");
        turn();
        toldInside = fresh.readable;
    };
    turn();
    QCOMPARE(toldInside, 1);
}

void tst_SocketPoller::timersHaveTheirTurnBetweenBatches()
{
    Ear busy(m_poller);
    busy.registration->setInterests(SocketPoller::Readable);
    busy.peer.send("x");
    QTest::qWait(30);
    QVERIFY(busy.readable > 1);
}

void tst_SocketPoller::restsWhileTheKernelReportsNothing()
{
    Ear ear(m_poller);
    ear.registration->setInterests(SocketPoller::Readable);
    ear.whenReadable = [&] { ear.takeBytes(); };
    s_waitFails = true;
    ear.peer.send("x");
    QTest::qWait(200);
    s_waitFails = false;
    QVERIFY2(s_failedWaits > 0 && s_failedWaits < 30, qPrintable(QString::number(s_failedWaits)));
    QCOMPARE(ear.readable, 0);

    QTRY_COMPARE(ear.readable, 1);
}

QTEST_GUILESS_MAIN(tst_SocketPoller)
#include "tst_socketpoller.moc"
