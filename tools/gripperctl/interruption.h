#pragma once

namespace gripperctl {

/// From now on Ctrl-C and the other signals that end a program are noted. A second signal ends the
/// program at once. Further calls have no effect.
void catchInterruptions();

/// Throws Interrupted once for each signal, unless a HeldInterruption exists.
void throwIfInterrupted();

/// While it exists, a signal does not end the present wait: its reply decides what has to be
/// undone.
class HeldInterruption
{
public:
    HeldInterruption();
    ~HeldInterruption();
    HeldInterruption(const HeldInterruption &) = delete;
    HeldInterruption &operator=(const HeldInterruption &) = delete;
};

} // namespace gripperctl
