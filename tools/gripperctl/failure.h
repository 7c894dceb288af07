#pragma once

#include <QJsonObject>
#include <QString>

namespace gripperctl {

/// How a run ends. Scripts compare these numbers, so they never change.
enum class ExitCode {
    Done = 0,
    Refused = 1,      ///< by the daemon or the gripper; or the gripper has a fault
    WrongUsage = 2,   ///< nothing was sent: fix the command line
    NoConnection = 3, ///< nothing listens there, or the connection was lost
    TimedOut = 4,     ///< the action may still succeed: check the status
    NoGripper = 5,    ///< the daemon does not list the gripper, or no longer lists it
    LocalProblem = 6, ///< with a file or a program on this computer
    Interrupted = 130 ///< by Ctrl-C; the number that shells use
};

/// Thrown by an operation that cannot do its work. main() prints it.
struct Failure
{
    ExitCode code;
    QString text;           ///< one line: what happened, why, and what to do next
    QJsonObject known = {}; ///< results that are known nevertheless
};

} // namespace gripperctl
