#pragma once

#include "gripperstate.h"

#include <functional>

namespace gripperctl {

class Session;

/// What a gripper is waited for.
struct Goal
{
    QString stage; ///< "moving to 120"
    int timeoutMs;
    std::function<bool(const GripperState &state)> isReached;
};

/// Looks at the gripper that the connection addresses until the goal is reached, and returns what
/// it saw then. What it sees while the link is down is not judged: that is of before. Throws a
/// Failure when the time is over, or when the gripper has been gone for three seconds: a disturbed
/// line loses it for less.
GripperState waitForState(Session &session, int id, const Goal &goal);

} // namespace gripperctl
