#pragma once

namespace gripperctl {

class GripperState;

/// How far a request for a position has come.
enum class Motion {
    NotTaken, ///< the gripper does not show the request yet
    UnderWay,
    Reached,
    Stopped, ///< by an object, or by a leak
    Faulty,
    Inactive, ///< it takes no request before it is activated
};

/// Judges by one look. What the gripper says of objects belongs to the request that it shows, so it
/// means nothing before that is the one for `position`.
Motion judgeMotion(const GripperState &state, int position);

} // namespace gripperctl
