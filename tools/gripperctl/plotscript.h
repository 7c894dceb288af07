#pragma once

#include "recording.h"

namespace gripperctl {

/// Commands and data for gnuplot, which writes the picture to its standard output: PNG if `isPng`,
/// otherwise SVG. `name` is the recording's name for the title.
std::string plotScript(const Recording &recording, const std::string &name, bool isPng);

} // namespace gripperctl
