#include "recording.h"

#include "failure.h"
#include "gripperview.h"
#include "text.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <sstream>

namespace gripperctl {

namespace {

enum Column { Time, Seconds, Gripper, Position, Requested, Current, Object, Fault, Link, Columns };

constexpr const char *linkRuns = "RUNNING";

/// The cause of an outage, for the column of the link.
std::string causeText(const gripper::Outage &outage)
{
    switch (outage.reason) {
    case gripper::Outage::Reason::NoConnection:
        return "NO_CONNECTION";
    case gripper::Outage::Reason::Missing:
        return "MISSING";
    case gripper::Outage::Reason::LinkDown:
        break;
    }
    return outage.text;
}

[[noreturn]] void fail(int line)
{
    throw Failure{ExitCode::LocalProblem,
                  "line " + std::to_string(line) +
                      " is not part of a recording: use a file that gripperctl record made"};
}

template <typename Number>
bool read(const std::string &text, Number &number)
{
    const char *end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return result.ec == std::errc() && result.ptr == end;
}

std::vector<std::string> fieldsOf(const std::string &line)
{
    std::vector<std::string> fields(1);
    for (const char character : line) {
        if (character == ',')
            fields.emplace_back();
        else
            fields.back() += character;
    }
    return fields;
}

std::optional<Sample> sampleFrom(const std::vector<std::string> &fields)
{
    Sample sample;
    if (fields.size() != Columns || !read(fields[Seconds], sample.seconds) ||
        !read(fields[Gripper], sample.gripper))
        return std::nullopt;
    sample.isLive = fields[Link] == linkRuns;
    if (!sample.isLive)
        return sample;
    const bool hasValues = read(fields[Position], sample.position) &&
                           read(fields[Requested], sample.requested) &&
                           read(fields[Current], sample.current);
    return hasValues ? std::optional<Sample>(sample) : std::nullopt;
}

std::optional<LocalTime> startFrom(const std::string &time, double seconds)
{
    auto start = parseTime(time);
    if (start)
        start->seconds -= seconds;
    return start;
}

} // namespace

const char *const recordingHeader =
    "time,seconds,gripper,position,requested,current,object,fault,link";

std::string RecordingWriter::beginOfLine(int id, const gripper::ReadingTime &time) const
{
    const std::chrono::duration<double> sinceStart = time.monotonic - m_start;
    char seconds[32];
    std::snprintf(seconds, sizeof seconds, "%.3f", std::max(0.0, sinceStart.count()));
    return timeText(time.wall) + ',' + seconds + ',' + std::to_string(id) + ',';
}

std::string RecordingWriter::imageLine(const gripper::Image &image)
{
    m_outages.erase(image.id);
    return beginOfLine(image.id, image.time) + numberText(image.position) + ',' +
           numberText(image.requestedPosition) + ',' + numberText(image.current) + ',' +
           objectText(image) + ',' + numberText(image.fault) + ',' + image.line.text;
}

std::string RecordingWriter::outageLine(const gripper::Outage &outage)
{
    std::string cause = causeText(outage);
    std::replace(cause.begin(), cause.end(), ',', ' ');
    std::string &written = m_outages[outage.id];
    if (written == cause)
        return {};
    written = cause;
    return beginOfLine(outage.id, outage.time) + ",,,,," + cause;
}

std::string RecordingWriter::lineOf(const gripper::WatchItem &item)
{
    if (const auto *image = std::get_if<gripper::Image>(&item))
        return imageLine(*image);
    return outageLine(std::get<gripper::Outage>(item));
}

Recording parseRecording(const std::string &text)
{
    std::istringstream lines(text);
    std::string line;
    const auto readLine = [&] {
        const bool isRead = static_cast<bool>(std::getline(lines, line));
        // Spreadsheets end a line with CR and LF.
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        return isRead;
    };
    if (!readLine() || line != recordingHeader)
        fail(1);
    Recording recording;
    for (int number = 2; readLine(); ++number) {
        if (line.empty())
            continue;
        const std::vector<std::string> fields = fieldsOf(line);
        const auto sample = sampleFrom(fields);
        const bool isCut = lines.eof();
        if (!sample && !isCut)
            fail(number);
        if (sample && recording.samples.empty())
            recording.start = startFrom(fields[Time], sample->seconds);
        if (sample)
            recording.samples.push_back(*sample);
    }
    return recording;
}

} // namespace gripperctl
