#pragma once

#include <string>

namespace gateway {

/// A QR code for a terminal, dark on light whatever the terminal's colours are. Empty if the text
/// is too long.
std::string qrCodeOf(const std::string &text);

} // namespace gateway
