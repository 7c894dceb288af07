#pragma once

#include "recording.h"

namespace gripperctl {

/// Commands and data for gnuplot, which writes the picture to its standard output: PNG if `isPng`,
/// otherwise SVG.
QByteArray plotScript(const QVector<Sample> &samples, bool isPng);

} // namespace gripperctl
