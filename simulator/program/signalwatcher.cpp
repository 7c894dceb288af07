#include "signalwatcher.h"

#include <csignal>

#include <sys/eventfd.h>
#include <unistd.h>

namespace sim {

namespace {
constexpr int quitSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGQUIT};

volatile int s_eventFd = -1;

/// Makes only async-signal-safe calls.
void onSignal(int /*number*/)
{
    const eventfd_t one = 1;
    const ssize_t written = ::write(s_eventFd, &one, sizeof one);
    Q_UNUSED(written)
}

void setHandlers(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    for (const int number : quitSignals)
        ::sigaction(number, &action, nullptr);
}
} // namespace

SignalWatcher::SignalWatcher(QObject *parent)
    : QObject(parent)
{
    s_eventFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    m_notifier = std::make_unique<QSocketNotifier>(s_eventFd, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, [this] {
        eventfd_t count = 0;
        ::eventfd_read(s_eventFd, &count);
        emit quitRequested();
    });
    setHandlers(onSignal);
}

SignalWatcher::~SignalWatcher()
{
    setHandlers(SIG_DFL);
    m_notifier.reset();
    ::close(s_eventFd);
    s_eventFd = -1;
}

} // namespace sim
