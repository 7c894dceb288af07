#include "processsetup.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

void occupyStandardDescriptors()
{
    // open() hands out the lowest free number, so this fills the gaps from below.
    int descriptor = 0;
    do
        descriptor = ::open("/dev/null", O_RDWR);
    while (descriptor >= 0 && descriptor <= STDERR_FILENO);
    if (descriptor > STDERR_FILENO)
        ::close(descriptor);
}

void raiseDescriptorLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return;
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
}

// A parent's choice would make waitpid() never report a child, and keep quit signals from us.
void resetInheritedSignals()
{
    ::signal(SIGCHLD, SIG_DFL);
    sigset_t none{};
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void failWritesWithoutSignal()
{
    ::signal(SIGPIPE, SIG_IGN);
    // Child processes would inherit SIG_IGN, which QProcess undoes for SIGPIPE only. A handler ends
    // with exec.
    ::signal(SIGXFSZ, [](int) {});
}

} // namespace

void prepareProcess()
{
    occupyStandardDescriptors();
    raiseDescriptorLimit();
    resetInheritedSignals();
    failWritesWithoutSignal();
}
