#include "quitsignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

std::atomic<bool> s_quitRequested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the handler may use only lock-free atomics");

// An eventfd. The signal handler writes to it to wake up the event loop.
std::atomic<int> s_wakeDescriptor{-1};

void onQuitSignal(int /*signalNumber*/)
{
    const int keptErrno = errno;
    s_quitRequested = true;
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = ::write(s_wakeDescriptor, &one, sizeof one);
    errno = keptErrno;
}

void watchWakeDescriptor()
{
    s_wakeDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    auto *notifier =
        new QSocketNotifier(s_wakeDescriptor, QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [notifier] {
        notifier->setEnabled(false);
        QCoreApplication::quit();
    });
}

} // namespace

void quitOnSignals(const QVector<int> &signalNumbers)
{
    if (s_wakeDescriptor < 0)
        watchWakeDescriptor();
    for (const int signalNumber : signalNumbers)
        ::signal(signalNumber, onQuitSignal);
}

bool quitRequested()
{
    return s_quitRequested;
}

HeldSignals::HeldSignals(const QVector<int> &signalNumbers)
    : m_before{}
{
    sigset_t held{};
    ::sigemptyset(&held);
    for (const int signalNumber : signalNumbers)
        ::sigaddset(&held, signalNumber);
    ::pthread_sigmask(SIG_BLOCK, &held, &m_before);
}

HeldSignals::~HeldSignals()
{
    ::pthread_sigmask(SIG_SETMASK, &m_before, nullptr);
}
