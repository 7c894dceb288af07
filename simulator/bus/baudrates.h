#pragma once

#include <termios.h>

namespace sim {

/// The bits a second that a termios speed constant stands for; 0 for one that is not known.
int baudRateOf(speed_t speed);

} // namespace sim
