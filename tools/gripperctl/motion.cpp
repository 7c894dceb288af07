#include "motion.h"

#include "gripperstate.h"

namespace gripperctl {

Motion judgeMotion(const GripperState &state, int position)
{
    if (state.fault() != 0)
        return Motion::Faulty;
    if (state.status() != GripperState::Status::Active)
        return Motion::Inactive;
    if (state.requestedPosition() != position || !state.goesTo())
        return Motion::NotTaken;
    switch (state.object()) {
    case GripperState::Object::Met:
        return Motion::Stopped;
    case GripperState::Object::Reached:
        return Motion::Reached;
    case GripperState::Object::None:
    case GripperState::Object::Moving:
        break;
    }
    return Motion::UnderWay;
}

} // namespace gripperctl
