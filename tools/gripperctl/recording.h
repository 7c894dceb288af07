#pragma once

#include <gripper/watch.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

namespace gripperctl {

/// The first line of a recording, a file of comma-separated values.
extern const char *const recordingHeader;

/// Makes the lines of a recording: one for each image, and one at the begin of each outage.
class RecordingWriter
{
public:
    /// `start` is the time 0.
    explicit RecordingWriter(std::chrono::steady_clock::time_point start)
        : m_start(start)
    {
    }

    /// Empty for an outage that has its line already.
    std::string lineOf(const gripper::WatchItem &item);

private:
    std::chrono::steady_clock::time_point m_start;
    std::map<int, std::string> m_outages; ///< what is written of the present outages
};

/// One line of a recording.
struct Sample
{
    double seconds = 0;
    int gripper = 0;
    bool isLive = false;      ///< whether the link ran; otherwise the values are unknown
    bool concernsAll = false; ///< nor are those of the other grippers known
    int position = 0;
    int requested = 0;
    int current = 0;
};

/// A recording that was read from a file.
struct Recording
{
    std::vector<Sample> samples;
    std::string time; ///< of the first sample; empty if it has not the form of timeText()
};

/// Reads the whole text of a file. It drops an incomplete last line, which a recorder leaves that
/// was killed. Throws a Failure that names the first wrong line.
Recording parseRecording(const std::string &text);

} // namespace gripperctl
