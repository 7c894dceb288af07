#pragma once

namespace gripperctl {

class Session;

/// Mutes polling as long as it exists, so that no poll delays a request that needs the line. The
/// destructor unmutes polling unless a flasher has the line.
class MutedPolling
{
public:
    explicit MutedPolling(Session &session);
    ~MutedPolling();
    MutedPolling(const MutedPolling &) = delete;
    MutedPolling &operator=(const MutedPolling &) = delete;

    /// Blocks until the last poll has ended.
    void waitForSilentLine();

    /// Unmutes before the destructor does.
    void unmute();

    /// Leaves the unmuting to the daemon or the user: the destructor does nothing.
    void leaveMuted();

private:
    void unmuteOnNewConnection();

    Session &m_session;
    bool m_isOver = false;
};

} // namespace gripperctl
