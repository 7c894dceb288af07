#include "failure.h"

#include "text.h"

namespace gripperctl {

namespace {

ExitCode codeOf(const gripper::Error &error)
{
    if (dynamic_cast<const Interrupted *>(&error) != nullptr)
        return ExitCode::Interrupted;
    if (dynamic_cast<const gripper::TimedOut *>(&error) != nullptr)
        return ExitCode::TimedOut;
    if (dynamic_cast<const gripper::CommunicationError *>(&error) != nullptr)
        return ExitCode::NoConnection;
    if (dynamic_cast<const gripper::GripperMissing *>(&error) != nullptr)
        return ExitCode::NoGripper;
    if (dynamic_cast<const gripper::InvalidValue *>(&error) != nullptr)
        return ExitCode::WrongUsage;
    return ExitCode::Refused;
}

} // namespace

Failure failureOf(const gripper::Error &error)
{
    std::string text = error.what();
    const bool isRefused =
        dynamic_cast<const gripper::ConnectionLost *>(&error) != nullptr && text.back() == '?';
    if (isRefused)
        text += " See systemctl status gripperd";
    return {codeOf(error), text};
}

} // namespace gripperctl
