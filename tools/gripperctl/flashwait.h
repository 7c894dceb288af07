#pragma once

class MutedPolling;
class Session;

enum class FlasherEnd {
    Ended,        ///< the daemon has unmuted polling by itself
    NeverStarted, ///< polling would have stayed muted for ever
};

/// Waits until no flasher runs, after an upgrade was acknowledged. Polling goes on when it returns.
/// If it throws before the flasher has ended, polling is left to the daemon.
FlasherEnd waitForFlasher(Session &session, MutedPolling &muted);
