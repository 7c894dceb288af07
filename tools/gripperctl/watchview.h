#pragma once

#include "snapshot.h"

namespace gripperctl {

/// `cells` characters for 0 to 255: '#' up to the position, '|' at the requested one.
QString positionBar(int position, int requested, int cells);

/// For a terminal of that width: a head line, and a line with a bar for each gripper. No line is
/// longer.
QStringList watchScreen(const Snapshot &snapshot, const QString &host, int width);

/// For a file: a line for each gripper, of NAME=VALUE words.
QStringList watchLines(const Snapshot &snapshot);

} // namespace gripperctl
