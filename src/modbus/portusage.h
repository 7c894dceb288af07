#pragma once

#include <QString>

#include <functional>

/// What isPortFree() tells about each command that it ran: the command line and its exit code,
/// -1 when the program crashed, -2 when it could not be started.
using CommandReport = std::function<void(const QString &command, int exitCode)>;

/// Whether a port of this bare name may carry a gripper bus: "ttyUSB" or "ttyACM" and whatever
/// follows, case-sensitive.
bool isUsbSerialPortName(const QString &portName);

/// Whether no process holds /dev/`portName` open, as `fuser` sees it: the one in the working
/// directory, so that installations can ship their own, or else the one on the search path.
/// False when neither can be run. Blocks the thread, without pumping events, while they run.
bool isPortFree(const QString &portName, const CommandReport &report = {});
