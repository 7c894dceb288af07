#pragma once

namespace gripperctl {

/// From here on SIGINT, SIGTERM, SIGHUP and SIGQUIT are only noted, once each: the second one of a
/// kind ends the process at once.
void catchInterruptions();

bool isInterrupted();

/// Throws a Failure of kind Interrupted if a signal has come.
void throwIfInterrupted();

/// Sleeps for that long. Throws as above, at most 50 ms after the signal.
void pauseFor(int milliseconds);

} // namespace gripperctl
