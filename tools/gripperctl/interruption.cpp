#include "interruption.h"

#include "failure.h"

#include <csignal>
#include <utility>

namespace gripperctl {

namespace {

volatile std::sig_atomic_t isSignalled = 0;
bool isCatching = false;
int holds = 0;

} // namespace

extern "C" {
static void noteSignal(int /*number*/)
{
    isSignalled = 1;
}
}

void catchInterruptions()
{
    // A handler that is installed again would also catch the second signal.
    if (std::exchange(isCatching, true))
        return;
    struct sigaction action = {};
    action.sa_handler = noteSignal;
    // Without SA_RESTART, the signal also ends a read from the terminal.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaction(number, &action, nullptr);
}

void throwIfInterrupted()
{
    if (isSignalled == 0 || holds > 0)
        return;
    // The work that undoes things has to wait, too.
    isSignalled = 0;
    throw Interrupted();
}

HeldInterruption::HeldInterruption()
{
    ++holds;
}

HeldInterruption::~HeldInterruption()
{
    --holds;
}

} // namespace gripperctl
