#pragma once

#include <QSocketNotifier>

#include <array>
#include <memory>
#include <sys/epoll.h>

/// Tells any number of sockets when they can be read and written, at a cost that does not grow with
/// those that are idle: they share one epoll descriptor, and the event loop looks at that one only.
///
/// Whoever is told may pump events, add and remove sockets, the one concerned included: what is
/// still to be told is told from inside.
class SocketPoller : public QObject
{
    Q_OBJECT

public:
    /// What a socket waits for.
    enum Interest : quint32 {
        Nothing = 0,
        Readable = EPOLLIN,
        Writable = EPOLLOUT,
    };
    Q_DECLARE_FLAGS(Interests, Interest)

    /// One socket's ear. Is told only what it waits for; a broken connection counts as both.
    class Listener
    {
    public:
        virtual void onReadable() = 0;
        virtual void onWritable() = 0;

    protected:
        ~Listener() = default;
    };

    /// `descriptor` must stay open until this object is gone or nothing is waited for any more.
    class Registration
    {
    public:
        Registration(SocketPoller &poller, int descriptor, Listener &listener);
        ~Registration();
        Q_DISABLE_COPY_MOVE(Registration)

        /// What is told from now on. False, and nothing changed, when the kernel has no room.
        bool setInterests(Interests interests);

    private:
        friend class SocketPoller;

        SocketPoller &m_poller;
        int m_descriptor;
        Listener &m_listener;
        Interests m_interests = Nothing;
    };

    /// Aborts the process, after a fatal log line, when the kernel has no epoll descriptor left.
    explicit SocketPoller(QObject *parent);
    ~SocketPoller() override;

private:
    /// Told in one turn of the event loop: timers and everybody else have theirs in between.
    static constexpr int __batchSize = 128;

    void tellBatch();
    void pause();
    void tell(const epoll_event &event);
    void forget(const Registration *registration);

    int m_epoll;
    std::unique_ptr<QSocketNotifier> m_notifier;
    /// Shared by all levels of nested event loops: [m_next, m_end) is still to be told.
    std::array<epoll_event, __batchSize> m_batch{};
    int m_next = 0;
    int m_end = 0;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(SocketPoller::Interests)
