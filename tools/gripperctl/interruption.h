#pragma once

namespace gripperctl {

/// From now on the first SIGINT, SIGTERM, SIGHUP or SIGQUIT only sets a flag. A second signal of
/// the same kind ends the process at once.
void catchInterruptions();

bool isInterrupted();

/// Throws a Failure with the code Interrupted if a signal has arrived.
void throwIfInterrupted();

/// Blocks for `milliseconds`. Throws as throwIfInterrupted() does, at most 50 ms after the signal.
void pauseFor(int milliseconds);

} // namespace gripperctl
