#pragma once

#include "picture.h"

#include <gripper/connection.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace gateway {

/// Looks at the line 20 times a second, in a thread of its own, and never commands a gripper. The
/// connections of the library do the rest: they connect again and end a look in time. Sockets in
/// the event loop would need the same work once more.
class LineWatch
{
public:
    static constexpr std::chrono::milliseconds period{50};

    /// Calls `deliver` from its own thread, for each look.
    LineWatch(gripper::Endpoint endpoint, std::function<void(const Reading &)> deliver);
    /// Waits 50 ms at most.
    ~LineWatch();
    LineWatch(const LineWatch &) = delete;
    LineWatch &operator=(const LineWatch &) = delete;

private:
    void run();
    Reading look();
    void waitUntil(std::chrono::steady_clock::time_point time);
    gripper::Options options() const;

    gripper::Endpoint m_endpoint;
    std::function<void(const Reading &)> m_deliver;
    std::atomic<bool> m_isEnding = false;
    std::mutex m_mutex;
    std::condition_variable m_ends;
    gripper::Connection m_line;
    std::map<int, gripper::Connection> m_grippers;
    std::thread m_thread; ///< starts last, when all members exist
};

} // namespace gateway
