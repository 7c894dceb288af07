#pragma once

#include <QString>

/// How a flashing ends. The values are the exit codes of the program.
enum class FlasherOutcome {
    Done = 0,         ///< written, verified, and started when that was asked for
    CannotBegin = 2,  ///< wrong arguments, image or installation: fix that; nothing was written
    PortFailed = 3,   ///< the port is missing, held by others, or went away: free it, try again
    NoBootloader = 4, ///< nobody answers as a bootloader: send the gripper into it, try again
    WriteFailed = 5,  ///< the firmware is incomplete: the gripper needs another flashing
    NotStarted = 6,   ///< written and verified: switching the gripper off and on starts it
    Stalled = 7,      ///< no progress: the firmware may be incomplete, as with WriteFailed
};

/// The one line that tells what happened, why (`problem`, if it is known) and what to do next.
/// Empty for Done.
QString lineFor(FlasherOutcome outcome, const QString &problem);
