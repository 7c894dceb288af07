#pragma once

#include "snapshot.h"

namespace gripperctl {

/// A bar of `cells` characters for 0 to 255: '#' up to `position`, '|' at `requested`.
QString positionBar(int position, int requested, int cells);

/// The live view: a head line, and a line with a bar for each gripper. No line has more than
/// `width` characters.
QStringList watchScreen(const Snapshot &snapshot, const QString &host, int width);

/// The view without a terminal: a line of NAME=VALUE words for each gripper.
QStringList watchLines(const Snapshot &snapshot);

} // namespace gripperctl
