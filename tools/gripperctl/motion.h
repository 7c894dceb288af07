#pragma once

namespace gripperctl {

class GripperState;

/// The progress of a request for a position.
enum class Motion {
    NotTaken, ///< the gripper does not show the request yet
    UnderWay,
    Reached,
    Stopped, ///< by an object, or by a leak
    Faulty,
    Inactive, ///< the gripper does not move before it is activated
};

/// Judges one state. The object state of a gripper belongs to the request that the gripper shows.
/// It is not valid for `position` before the gripper shows that request.
Motion judgeMotion(const GripperState &state, int position);

} // namespace gripperctl
