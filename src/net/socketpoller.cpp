#include "socketpoller.h"

#include <QTimer>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr quint32 brokenConnection = EPOLLERR | EPOLLHUP;
constexpr quint32 readable = EPOLLIN | brokenConnection;
constexpr quint32 writable = EPOLLOUT | brokenConnection;
constexpr int waitRetryMs = 20;

/// Aborts the process on failure: without this descriptor the daemon cannot serve any client.
int createEpoll()
{
    const int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    if (epoll < 0)
        qFatal("Unable to wait for clients: epoll_create1: %s", std::strerror(errno));
    return epoll;
}

} // namespace

SocketPoller::Registration::Registration(SocketPoller &poller, int descriptor, Listener &listener)
    : m_poller(poller)
    , m_descriptor(descriptor)
    , m_listener(listener)
{
}

SocketPoller::Registration::~Registration()
{
    setInterests(Nothing);
    m_poller.removeFromBatch(this);
}

bool SocketPoller::Registration::setInterests(Interests interests)
{
    if (interests == m_interests)
        return true;
    // epoll reports a broken connection again and again, even if the socket has no interests. A
    // socket without interests must therefore leave the epoll set.
    int operation = EPOLL_CTL_MOD;
    if (m_interests == Nothing)
        operation = EPOLL_CTL_ADD;
    else if (interests == Nothing)
        operation = EPOLL_CTL_DEL;
    epoll_event event{};
    event.events = interests;
    event.data.ptr = this;
    if (::epoll_ctl(m_poller.m_epoll.get(), operation, m_descriptor, &event) != 0)
        return false;
    m_interests = interests;
    return true;
}

SocketPoller::SocketPoller(QObject *parent)
    : QObject(parent)
    , m_epoll(createEpoll())
    , m_notifier(std::make_unique<QSocketNotifier>(m_epoll.get(), QSocketNotifier::Read))
{
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] { dispatchBatch(); });
}

void SocketPoller::dispatchBatch()
{
    if (m_next == m_end) {
        m_next = 0;
        const int count = ::epoll_wait(m_epoll.get(), m_batch.data(), batchSize, 0);
        m_end = std::max(0, count);
        if (count < 0)
            pause();
    }
    while (m_next < m_end)
        dispatch(m_batch[static_cast<std::size_t>(m_next++)]);
}

/// After a failure of epoll_wait() the descriptor stays readable. Without a pause, the event loop
/// would spin.
void SocketPoller::pause()
{
    m_notifier->setEnabled(false);
    QTimer::singleShot(waitRetryMs, m_notifier.get(), [this] { m_notifier->setEnabled(true); });
}

void SocketPoller::dispatch(const epoll_event &event)
{
    auto *registration = static_cast<Registration *>(event.data.ptr);
    if (registration == nullptr)
        return;
    // A nested dispatchBatch() may overwrite the event.
    const quint32 events = event.events;
    Listener &listener = registration->m_listener;
    if ((events & writable) != 0 && registration->m_interests.testFlag(Writable))
        listener.onWritable();
    // Call onReadable() last: it may pump events, and the registration may be gone afterwards.
    if ((events & readable) != 0 && registration->m_interests.testFlag(Readable))
        listener.onReadable();
}

void SocketPoller::removeFromBatch(const Registration *registration)
{
    for (int i = m_next; i < m_end; ++i) {
        epoll_event &event = m_batch[static_cast<std::size_t>(i)];
        if (event.data.ptr == registration)
            event.data.ptr = nullptr;
    }
}
