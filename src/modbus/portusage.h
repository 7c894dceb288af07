#pragma once

#include <QString>

#include <functional>

/// Receives the command line and the exit code of each command that isPortFree() ran. The code is
/// -1 if the program crashed and -2 if it did not start.
using CommandReport = std::function<void(const QString &command, int exitCode)>;

/// Whether `portName` starts with "ttyUSB" or "ttyACM", case-sensitive. Grippers may be on such a
/// port.
bool isUsbSerialPortName(const QString &portName);

/// Whether no process has /dev/`portName` open. Runs `fuser` in the working directory, so that
/// installations can ship their own. If it cannot run, runs `fuser` on the search path. False if
/// neither can run. Blocks the thread meanwhile, without pumping events.
bool isPortFree(const QString &portName, const CommandReport &report = {});
