// The command-line client of the daemon.
#include "app.h"
#include "failure.h"
#include "standarddescriptors.h"

#include <csignal>
#include <cstdio>

int main(int argc, char *argv[])
{
    tools::occupyStandardDescriptors();
    // A reader that closes the pipe is noticed when the next result is written.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return gripperctl::runCommandLine(argc, argv);
    } catch (const std::exception &exception) {
        std::fprintf(stderr, "gripperctl: %s\n", exception.what());
        return static_cast<int>(gripperctl::ExitCode::LocalProblem);
    }
}
