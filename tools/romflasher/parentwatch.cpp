#include "parentwatch.h"

#include <csignal>

#include <sys/prctl.h>
#include <unistd.h>

namespace flasher {

bool endWithParent(pid_t parentPid)
{
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    return ::getppid() == parentPid;
}

} // namespace flasher
