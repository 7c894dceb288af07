#include "recording.h"

#include "failure.h"
#include "gripperview.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <sstream>
#include <utility>

namespace gripperctl {

namespace {

enum Column { Time, Seconds, Gripper, Position, Requested, Current, Object, Fault, Link, Columns };

constexpr const char *header = "time,seconds,gripper,position,requested,current,object,fault,link";

constexpr const char *isMissing = "MISSING";

/// The cause of an outage, for the column of the link.
std::string causeOf(const gripper::Outage &outage)
{
    using Reason = gripper::Outage::Reason;
    if (outage.reason == Reason::LinkDown)
        return outage.text;
    return outage.reason == Reason::Missing ? isMissing : "NO_CONNECTION";
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
        !read(fields[Gripper], sample.gripper) || !std::isfinite(sample.seconds) ||
        sample.gripper < 0)
        return std::nullopt;
    sample.isLive = fields[Link] == linkRuns;
    sample.concernsAll = !sample.isLive && fields[Link] != isMissing;
    if (!sample.isLive)
        return sample;
    const bool hasValues = read(fields[Position], sample.position) &&
                           read(fields[Requested], sample.requested) &&
                           read(fields[Current], sample.current);
    return hasValues ? std::optional<Sample>(sample) : std::nullopt;
}

bool isTime(const std::string &text)
{
    constexpr std::size_t beginOfOffset = 23; // version 1.0.0 wrote "Z" there
    return text.size() > beginOfOffset && text[10] == 'T';
}

} // namespace

RecordingWriter::RecordingWriter(const std::string &path)
    : m_path(path)
    , m_file(path)
{
    append(header);
}

void RecordingWriter::write(const gripper::WatchItem &item)
{
    const auto [id, time] =
        std::visit([](const auto &one) { return std::pair(one.id, one.time); }, item);
    const std::chrono::duration<double> sinceStart = time.monotonic - m_start;
    std::string line = concat(timeText(time.wall), ',', std::fixed, std::setprecision(3),
                              std::max(0.0, sinceStart.count()), ',', id, ',');
    if (const auto *image = std::get_if<gripper::Image>(&item)) {
        m_outages.erase(id);
        line += concat(numberText(image->position), ',', numberText(image->requestedPosition), ',',
                       numberText(image->current), ',', objectText(*image), ',',
                       numberText(image->fault), ',', image->line.text);
    } else {
        std::string cause = causeOf(std::get<gripper::Outage>(item));
        std::replace(cause.begin(), cause.end(), ',', ' ');
        if (std::exchange(m_outages[id], cause) == cause)
            return;
        line += ",,,,," + cause;
    }
    append(line);
    ++m_lines;
}

void RecordingWriter::append(const std::string &line)
{
    if (!(m_file << line << std::endl))
        throw Failure(ExitCode::LocalProblem,
                      concat("cannot write ", m_path, ": ", std::strerror(errno)));
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
    if (!readLine() || line != header)
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
        if (sample && recording.samples.empty() && isTime(fields[Time]))
            recording.time = fields[Time];
        if (sample)
            recording.samples.push_back(*sample);
    }
    return recording;
}

} // namespace gripperctl
