#pragma once

#include "recording.h"

namespace gripperctl {

/// Commands and data for gnuplot, which writes the file `picture`: PNG if `isPng`, otherwise SVG.
/// `title` is a part of the picture's title.
std::string plotScript(const Recording &recording, const std::string &title,
                       const std::string &picture, bool isPng);

} // namespace gripperctl
