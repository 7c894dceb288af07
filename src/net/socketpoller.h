#pragma once

#include "filedescriptor.h"

#include <QSocketNotifier>

#include <array>
#include <memory>
#include <sys/epoll.h>

/// Reports to any number of listeners when their sockets can be read and written. All sockets share
/// one epoll descriptor, and the event loop watches only this descriptor, so idle sockets cost no
/// time.
///
/// In onReadable(), a listener may pump events: the nested event loop dispatches the rest of the
/// batch. A listener may add and remove sockets, in onReadable() also its own.
class SocketPoller : public QObject
{
    Q_OBJECT

public:
    enum Interest : quint32 {
        Nothing = 0,
        Readable = EPOLLIN,
        Writable = EPOLLOUT,
    };
    Q_DECLARE_FLAGS(Interests, Interest)

    /// Receives the events that one socket is registered for. A broken connection is readable and
    /// writable.
    class Listener
    {
    public:
        virtual void onReadable() = 0;
        virtual void onWritable() = 0;

    protected:
        ~Listener() = default;
    };

    /// Connects a socket with its listener. While this object exists, `descriptor` must stay open,
    /// and `poller` and `listener` must exist.
    class Registration
    {
    public:
        Registration(SocketPoller &poller, int descriptor, Listener &listener);
        ~Registration();
        Q_DISABLE_COPY_MOVE(Registration)

        /// Replaces the events that the listener receives. Returns false and changes nothing if the
        /// kernel has no memory for them.
        bool setInterests(Interests interests);

    private:
        friend class SocketPoller;

        SocketPoller &m_poller;
        int m_descriptor;
        Listener &m_listener;
        Interests m_interests = Nothing;
    };

    /// Aborts the process with a fatal log line if the kernel cannot create an epoll descriptor.
    explicit SocketPoller(QObject *parent);

private:
    /// The most events that one turn of the event loop dispatches. Between two turns, the loop
    /// serves timers and other events.
    static constexpr int batchSize = 128;

    void dispatchBatch();
    void pause();
    static void dispatch(const epoll_event &event);
    void removeFromBatch(const Registration *registration);

    FileDescriptor m_epoll;
    std::unique_ptr<QSocketNotifier> m_notifier;
    /// All levels of nested event loops share the batch. Events [m_next, m_end) are not yet
    /// dispatched.
    std::array<epoll_event, batchSize> m_batch{};
    int m_next = 0;
    int m_end = 0;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(SocketPoller::Interests)
