#pragma once

#include "options.h"

namespace gateway {

/// Asks the running gateway for a pairing code and prints it. Returns the exit status.
int runPairCommand(const Options &options);

/// Prints a pairing code, and a QR code of the page's address on a terminal.
void printPairingCode(const std::string &code, const std::string &url);

} // namespace gateway
