#pragma once

#include "standstill.h"

#include <gripper/line.h>

#include <atomic>
#include <chrono>
#include <future>
#include <list>
#include <optional>
#include <string>
#include <vector>

namespace gripperctl {

class Program;

/// The values that one daemon showed in one period.
struct Look
{
    std::string host;
    std::string driver; ///< the version of the driver; empty if the daemon does not answer
    std::vector<gripper::WatchItem> items; ///< at least one
    Standstill standstill = Standstill::No;
    gripper::ReadingTime unchangedSince;

    const gripper::ReadingTime &time() const;
};

/// Looks at one or several daemons periodically. Each look has a thread of its own, so that a
/// daemon that does not answer never delays the others.
class Looks
{
public:
    using Clock = std::chrono::steady_clock;

    /// Begins to look: at the gripper of --gripper, or at all. With one daemon, it throws Failure
    /// if this daemon does not answer or does not list the gripper. `count` looks at each daemon
    /// end the work.
    Looks(Program &program, gripper::Seconds interval, std::optional<int> count = {});
    /// Ends all threads, within 50 ms.
    ~Looks() { m_isStopped = true; }
    Looks(const Looks &) = delete;
    Looks &operator=(const Looks &) = delete;

    /// Waits for the next look, at most until `end`. Empty after the last look. Throws Interrupted.
    std::optional<Look> next(Clock::time_point end = Clock::time_point::max());

private:
    struct Host
    {
        gripper::Line line;
        gripper::Watch watch;
        std::string driver = {};
        StandstillJudge judge = {};
        int looks = 0;
        std::future<Look> pending = {}; ///< its destructor waits; so it is the last member
    };

    static Look look(Host &host);
    void beginLook(Host &host) const;

    const std::optional<int> m_count;
    std::atomic<bool> m_isStopped = false;
    std::list<Host> m_hosts;
};

} // namespace gripperctl
