#pragma once

#include <gripper/image.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>
#include <vector>

namespace gateway {

/// The end of a movement.
enum class MoveResult {
    Arrived,  ///< at the requested position or level, without a part
    Object,   ///< the gripper holds a part
    Leak,     ///< a vacuum gripper does not reach the level
    Stopped,  ///< go-to was switched off
    Replaced, ///< another request came first
    Failed,   ///< the gripper is no longer active
    Unknown   ///< the values ended first
};

/// By MoveResult.
constexpr std::array<const char *, 7> moveResultNames{"arrived",  "object", "leak",   "stopped",
                                                      "replaced", "failed", "unknown"};

struct EndedMove
{
    MoveResult result;
    std::chrono::duration<double> duration;
};

/// Finds the movements of one gripper in its successive values. A movement begins when the gripper
/// shows a new request. Both ends are as exact as the period of the readings.
class MoveWatch
{
public:
    /// Returns the movements that have ended since the last call: two at most.
    std::vector<EndedMove> take(const gripper::Image &image);
    /// There are no current values. A movement that shows later may have begun at any time, so it
    /// does not count.
    std::vector<EndedMove> interrupt();

private:
    using Clock = std::chrono::steady_clock;

    EndedMove end(MoveResult result);

    std::optional<gripper::Image> m_last;
    std::optional<Clock::time_point> m_begin; ///< of the movement under way
};

} // namespace gateway
