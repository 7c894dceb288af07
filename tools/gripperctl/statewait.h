#pragma once

#include "gripperstate.h"

#include <functional>

namespace gripperctl {

class Session;

/// A state to wait for.
struct Goal
{
    QString stage; ///< for the output, such as "moving to 120"
    int timeoutMs;
    std::function<bool(const GripperState &state)> isReached;
};

/// Reads the gripper that the connection addresses until it reaches the goal, and returns that
/// state. Ignores states that it reads while the link is down, because their values are old. Throws
/// Failure after the time-out, and when the gripper is missing for three seconds. On a disturbed
/// line it is missing for a shorter time.
GripperState waitForState(Session &session, int id, const Goal &goal);

} // namespace gripperctl
