#include "processsetup.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

// The kernel keeps at least 128 MiB of addresses free below the main thread's stack.
constexpr rlim_t wantedStackBytes = rlim_t{96} * 1024 * 1024;

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

void raiseStackLimit()
{
    rlimit limit{};
    if (::getrlimit(RLIMIT_STACK, &limit) != 0 || limit.rlim_cur >= wantedStackBytes)
        return;
    limit.rlim_cur = std::min(limit.rlim_max, wantedStackBytes);
    ::setrlimit(RLIMIT_STACK, &limit);
}

} // namespace

void prepareProcess()
{
    occupyStandardDescriptors();
    raiseDescriptorLimit();
    raiseStackLimit();
    ::signal(SIGPIPE, SIG_IGN);
}
