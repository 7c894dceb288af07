#pragma once

#include "snapshot.h"

namespace gripperctl {

/// One line of a recording.
struct Sample
{
    double seconds;
    int gripper;
    int position;
    int requested;
    int current;
    bool isLive; ///< whether the link ran; otherwise the values are old
};

/// The first line of a recording, a file of comma-separated values.
QString recordingHeader();

/// One line for each gripper of the snapshot. `seconds` counts from the start of the recording.
QStringList recordingLines(const Snapshot &snapshot, double seconds);

/// Reads the whole text of a file. Throws a Failure that names the first wrong line.
QVector<Sample> parseRecording(const QString &text);

} // namespace gripperctl
