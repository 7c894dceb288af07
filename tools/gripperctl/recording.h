#pragma once

#include <gripper/watch.h>

#include <chrono>
#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace gripperctl {

/// Writes a recording, a file of comma-separated values: one line for each image, and one at the
/// begin of each outage. The file is complete after each line, even if this process is killed.
class RecordingWriter
{
public:
    /// Overwrites the file. Throws Failure, as write() does.
    explicit RecordingWriter(const std::string &path);

    /// Writes nothing for an outage that has its line already.
    void write(const gripper::WatchItem &item);

    /// The number of lines after the first, which has the names of the columns.
    int lines() const { return m_lines; }

private:
    void append(const std::string &line);

    std::string m_path;
    std::ofstream m_file;
    int m_lines = 0;
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now(); ///< time 0
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
