#pragma once

#include <QString>

namespace flasher {

/// How a run ends. Scripts compare these numbers, so they never change.
enum class ExitCode {
    Done = 0,         ///< written, verified and, with -g, started
    CannotBegin = 2,  ///< wrong arguments, image or installation; nothing was written
    PortFailed = 3,   ///< the port is missing, another process has it, or it failed
    NoBootloader = 4, ///< no answer from a bootloader; nothing was written
    WriteFailed = 5,  ///< the firmware is incomplete: flash the gripper again
    NotStarted = 6,   ///< written and verified; a power cycle starts the firmware
    Stalled = 7,      ///< no progress; the firmware may be incomplete, as with WriteFailed
};

/// Thrown by an operation that cannot do its work. `code` is never Done.
struct Failure
{
    ExitCode code;
    QString cause; ///< empty if it is unknown
};

/// One line: what happened, why, and what to do next.
QString lineFor(const Failure &failure);

} // namespace flasher
