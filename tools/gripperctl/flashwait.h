#pragma once

#include "protocol.h"

namespace gripperctl {

class MutedPolling;
class Session;

/// The values of the link. They change when polling continues after an upgrade, and not before.
Values linkValues(Session &session);

enum class FlasherEnd {
    Ended,        ///< the daemon has unmuted polling by itself
    NeverStarted, ///< the daemon would have left polling muted
};

/// Call this after the daemon acknowledged an upgrade. Blocks until no flasher runs; polling is
/// then unmuted. `before` are the linkValues() from before the upgrade. A Failure while the flasher
/// runs leaves the unmuting to the daemon.
FlasherEnd waitForFlasher(Session &session, MutedPolling &muted, const Values &before);

} // namespace gripperctl
