#pragma once

namespace gripperctl {

/// Carries out a command line. Prints its result, or the problem on standard error. Returns an exit
/// code of Failure.
int runCommandLine(int argc, char *argv[]);

} // namespace gripperctl
