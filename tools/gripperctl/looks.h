#pragma once

#include <gripper/line.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace gripperctl {

class Program;

/// The values that one daemon showed in one period.
struct Look
{
    std::string host;
    std::string driver; ///< the version of the driver; empty if the daemon does not answer
    std::vector<gripper::WatchItem> items; ///< at least one

    const gripper::ReadingTime &time() const;
};

/// Looks at one or several daemons periodically. Each daemon has a thread of its own, so that one
/// that does not answer never delays the others.
class Looks
{
public:
    using Clock = std::chrono::steady_clock;

    /// Begins to look: at the gripper of --gripper, or at all. With one daemon, it throws Failure
    /// if this daemon does not answer or does not list the gripper. `count` looks at each daemon
    /// end the work.
    Looks(Program &program, double intervalSeconds, std::optional<int> count = {});
    /// Ends all threads, within 50 ms.
    ~Looks();
    Looks(const Looks &) = delete;
    Looks &operator=(const Looks &) = delete;

    /// Waits for the next look, at most until `end`. Empty after the last look. Throws Interrupted.
    std::optional<Look> next(Clock::time_point end = Clock::time_point::max());

private:
    struct Stopped
    {
    };

    void look(gripper::Line line, gripper::Watch watch);
    void push(Look look);

    const std::optional<int> m_count;
    const std::size_t m_hostCount;
    std::atomic<bool> m_isStopped = false;
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<Look> m_looks;
    std::size_t m_endedCount = 0; ///< threads that have pushed their last look
    std::vector<std::thread> m_threads;
};

} // namespace gripperctl
