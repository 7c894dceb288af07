#pragma once

#include <QJsonObject>
#include <QString>

namespace gripperctl {

/// How a run ends. Scripts look at these numbers, so they stay as they are.
enum class ExitCode {
    Done = 0,
    Refused = 1,      ///< by the daemon or the gripper, or the gripper shows a fault
    WrongUsage = 2,   ///< nothing was sent; mend the command line
    NoConnection = 3, ///< nobody listens there, or the connection was lost
    TimedOut = 4,     ///< it may still happen: look at the status
    NoGripper = 5,    ///< the daemon knows no such gripper, or no longer
    LocalProblem = 6, ///< a file or a program of this computer
    Interrupted = 130 ///< by Ctrl-C, as a shell has it
};

/// Thrown by whatever cannot go on; `text` says what to do, in one line.
struct Failure
{
    ExitCode code;
    QString text;
    QJsonObject known = {}; ///< what was found out all the same
};

} // namespace gripperctl
