#include "processsetup.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

void occupyStandardDescriptors()
{
    // open() returns the lowest free number, so this fills all gaps.
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

// The process inherits the settings of its parent. If SIGCHLD is ignored, waitpid() reports no
// child. A blocked quit signal never reaches its handler.
void resetInheritedSignals()
{
    ::signal(SIGCHLD, SIG_DFL);
    sigset_t none{};
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

void preventSignalsOfWrites()
{
    ::signal(SIGPIPE, SIG_IGN);
    // Child processes would inherit SIG_IGN, because QProcess resets only SIGPIPE. They do not
    // inherit a handler.
    ::signal(SIGXFSZ, [](int) {});
}

} // namespace

void prepareProcess()
{
    occupyStandardDescriptors();
    raiseDescriptorLimit();
    resetInheritedSignals();
    preventSignalsOfWrites();
}
