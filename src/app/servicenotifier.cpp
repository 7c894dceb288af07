#include "servicenotifier.h"

#include <QObject>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <limits>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr timeval readyTimeout{1, 0};
constexpr qulonglong microsecondsPerMs = 1000;

QByteArray takeVariable(const char *name)
{
    QByteArray value = qgetenv(name);
    qunsetenv(name);
    return value;
}

/// Returns an empty array if the name is neither a path nor the name of an abstract socket.
QByteArray socketAddress(const QByteArray &name)
{
    sockaddr_un address{};
    const bool isAbstract = name.startsWith('@');
    if ((!isAbstract && !name.startsWith('/')) ||
        static_cast<std::size_t>(name.size()) >= sizeof address.sun_path)
        return {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, name.constData(), static_cast<std::size_t>(name.size()));
    // Every byte of an abstract name counts, so no zero follows it.
    if (isAbstract)
        address.sun_path[0] = '\0';
    const std::size_t end = isAbstract ? 0 : 1;
    return {reinterpret_cast<const char *>(&address),
            static_cast<int>(offsetof(sockaddr_un, sun_path) + end) + name.size()};
}

/// Returns 0 if the manager expects no regular notifications from this process.
int notificationIntervalMs()
{
    const qulonglong periodUs = takeVariable("WATCHDOG_USEC").toULongLong();
    const QByteArray process = takeVariable("WATCHDOG_PID");
    if (periodUs == 0 || (!process.isEmpty() && process != QByteArray::number(::getpid())))
        return 0;
    constexpr qulonglong longest = std::numeric_limits<int>::max();
    return static_cast<int>(std::clamp(periodUs / 2 / microsecondsPerMs, qulonglong(1), longest));
}

} // namespace

ServiceNotifier *ServiceNotifier::s_instance = nullptr;

ServiceNotifier::ServiceNotifier()
    : m_address(socketAddress(takeVariable("NOTIFY_SOCKET")))
    , m_intervalMs(notificationIntervalMs())
{
    s_instance = this;
    if (m_address.isEmpty())
        return;
    m_socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ::setsockopt(m_socket, SOL_SOCKET, SO_SNDTIMEO, &readyTimeout, sizeof readyTimeout);
    QObject::connect(&m_timer, &QTimer::timeout, [this] { notifyAlive(); });
}

ServiceNotifier::~ServiceNotifier()
{
    s_instance = nullptr;
    if (m_socket >= 0)
        ::close(m_socket);
}

void ServiceNotifier::notifyReady()
{
    if (m_socket < 0)
        return;
    send("READY=1", 0);
    if (m_intervalMs == 0)
        return;
    m_timer.start(m_intervalMs);
    m_due.setRemainingTime(m_intervalMs);
}

void ServiceNotifier::notifyWhileBlocking()
{
    if (s_instance != nullptr && s_instance->m_due.hasExpired())
        s_instance->notifyAlive();
}

void ServiceNotifier::notifyAlive()
{
    m_due.setRemainingTime(m_intervalMs);
    // If the manager does not read, the next notification may still be in time.
    send("WATCHDOG=1", MSG_DONTWAIT);
}

void ServiceNotifier::send(const char *message, int flags) const
{
    ::sendto(m_socket, message, std::strlen(message), flags | MSG_NOSIGNAL,
             reinterpret_cast<const sockaddr *>(m_address.constData()),
             static_cast<socklen_t>(m_address.size()));
}
