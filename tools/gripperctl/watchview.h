#pragma once

#include "snapshot.h"

/// What `watch` shows: pure text, of one snapshot.
namespace watchview {

/// `cells` characters for 0 to 255: '#' up to the position, '|' at the requested one.
QString bar(int position, int requested, int cells);

/// For a terminal of that width: a head line, and a line with a bar for each gripper. No line is
/// longer.
QStringList screen(const Snapshot &snapshot, const QString &host, int width);

/// For a file: a line for each gripper, of NAME=VALUE words.
QStringList plainLines(const Snapshot &snapshot);

} // namespace watchview
