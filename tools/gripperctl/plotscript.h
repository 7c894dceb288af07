#pragma once

#include "recording.h"

namespace gripperctl {

/// What gnuplot is told, data included; it writes the picture to its standard output.
/// `isPng` chooses PNG, otherwise SVG.
QByteArray plotScript(const QVector<Sample> &samples, bool isPng);

} // namespace gripperctl
