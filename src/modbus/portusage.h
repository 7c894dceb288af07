#pragma once

#include <QString>

#include <functional>

/// isPortFree() calls this function after each command, with the command line and the exit code.
/// The code is -1 if the program crashed and -2 if it did not start.
using CommandReport = std::function<void(const QString &command, int exitCode)>;

/// Whether `portName` starts with "ttyUSB" or "ttyACM", case-sensitive. Grippers may be on such a
/// port.
bool isUsbSerialPortName(const QString &portName);

/// Whether no process has /dev/`portName` open. Runs `fuser` in the working directory, because
/// an installation may contain its own `fuser`. If this program crashes or does not start, runs
/// `fuser` on the search path. Returns false if that fails too, or after a quit signal. Blocks the
/// thread meanwhile, without pumping events.
bool isPortFree(const QString &portName, const CommandReport &report = {});
