#pragma once

#include "snapshot.h"

/// One line of a recording.
struct Sample
{
    double seconds;
    int gripper;
    int position;
    int requested;
    int current;
    bool isLive; ///< the link ran; otherwise the values stood still
};

/// Positions and currents in a file of comma-separated values.
namespace recording {

/// The first line.
QString header();

/// The lines of one snapshot, one for each gripper.
QStringList lines(const Snapshot &snapshot, double seconds);

/// Of the whole text of a file. Throws a Failure that names the first line that is wrong.
QVector<Sample> parse(const QString &text);

} // namespace recording
