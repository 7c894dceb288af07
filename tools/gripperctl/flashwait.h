#pragma once

#include "protocol.h"

namespace gripperctl {

class MutedPolling;
class Session;

/// What changes where polling goes on after an upgrade, and only there.
Values linkValues(Session &session);

enum class FlasherEnd {
    Ended,        ///< the daemon has unmuted polling by itself
    NeverStarted, ///< polling would have stayed muted for ever
};

/// Waits until no flasher runs, after an upgrade was acknowledged; `atFirst` are the link's values
/// from before it. Polling goes on when it returns. If it throws before the flasher has ended,
/// polling is left to the daemon.
FlasherEnd waitForFlasher(Session &session, MutedPolling &muted, const Values &atFirst);

} // namespace gripperctl
