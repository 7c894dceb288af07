#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QTimer>

/// Notifies the service manager that started this process: once when the daemon is ready, and then
/// regularly that its event loop runs. Each notification is a datagram to the socket that the
/// variable NOTIFY_SOCKET names. Without this variable, nothing is opened and nothing is sent.
///
/// The manager asks for the regular notifications with WATCHDOG_USEC, the longest time between two
/// of them in microseconds. The notifier sends them twice as often.
class ServiceNotifier
{
public:
    /// Reads the manager's variables and removes them from the environment, because they are not
    /// for child processes. Needs an application object.
    ServiceNotifier();
    ~ServiceNotifier();

    ServiceNotifier(const ServiceNotifier &) = delete;
    ServiceNotifier &operator=(const ServiceNotifier &) = delete;

    /// Reports that the daemon is ready and begins the regular notifications. Blocks for at most a
    /// second, if the manager does not read.
    void notifyReady();

    /// Sends the regular notification if it is due. For code that keeps the event loop waiting
    /// without a limit and checks its progress meanwhile. Never blocks.
    static void notifyWhileBlocking();

private:
    void notifyAlive();
    void send(const char *message, int flags) const;

    static ServiceNotifier *s_instance;

    int m_socket = -1;
    QByteArray m_address; ///< A sockaddr_un of the length that the address needs.
    int m_intervalMs = 0; ///< 0 without regular notifications.
    QTimer m_timer;
    QDeadlineTimer m_due{QDeadlineTimer::Forever};
};
