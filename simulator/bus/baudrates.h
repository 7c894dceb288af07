#pragma once

#include <termios.h>

namespace sim {

/// Converts a termios speed constant to bits per second. Returns 0 for an unknown constant.
int baudRateOf(speed_t speed);

} // namespace sim
