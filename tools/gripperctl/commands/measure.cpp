// hz and ping.
#include "commands.h"

#include "commandoptions.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <numeric>

namespace gripperctl {

namespace {

using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr int maxCount = 1'000'000;
constexpr int defaultCount = 5;
constexpr gripper::Seconds defaultPingInterval{1};
constexpr gripper::Seconds exchangeTimeout{2};
constexpr gripper::Seconds defaultHzTime{5};
/// Much shorter than the time between two visits of the daemon.
constexpr gripper::Seconds readInterval{0.005};

double rounded(Milliseconds time)
{
    return std::round(time.count() * 1000) / 1000;
}

/// Calls `step` until it returns false, with pauses. Returns the failure of an interruption: the
/// results up to it count.
template <typename Step>
std::optional<Failure> repeat(const gripper::Connection &connection, gripper::Seconds interval,
                              Step step)
{
    try {
        while (step())
            connection.pause(interval, gripper::Deadline(interval));
    } catch (const Interrupted &interruption) {
        return failureOf(interruption);
    }
    return std::nullopt;
}

/// Prints the results, also before a failure.
void report(Program &program, const std::string &text, const Json &json,
            const std::optional<Failure> &failure)
{
    if (!failure) {
        program.output().result(text, json);
        return;
    }
    program.output().partialResult(text);
    throw Failure(failure->code(), failure->what(), json);
}

void reportReplies(Program &program, int sent, const std::vector<double> &times,
                   const std::optional<Failure> &failure)
{
    std::string text = concat(times.size(), " of ", sent, " replies");
    Json json{{"sent", sent}, {"received", times.size()}};
    if (!times.empty()) {
        const auto [min, max] = std::minmax_element(times.begin(), times.end());
        const Milliseconds sum{std::accumulate(times.begin(), times.end(), 0.0)};
        const double mean = rounded(sum / static_cast<double>(times.size()));
        text += concat(", min ", *min, " ms, mean ", mean, " ms, max ", *max, " ms");
        json.update({{"minMs", *min}, {"meanMs", mean}, {"maxMs", *max}});
    }
    report(program, text, json, failure);
}

void ping(Program &program, const CLI::App &command)
{
    gripper::Connection connection(program.endpoint(), program.options());
    const gripper::Seconds timeout = program.timeoutOr(exchangeTimeout);
    // The time to connect belongs to no reply.
    connection.open(gripper::Deadline(timeout));
    const int count = numberOf(command, "--count").value_or(defaultCount);
    const auto interval = secondsOf(command, "--interval").value_or(defaultPingInterval);
    int sent = 0;
    std::vector<double> times;
    std::optional<Failure> failure;
    const auto interruption = repeat(connection, interval, [&] {
        ++sent;
        const auto begin = std::chrono::steady_clock::now();
        try {
            connection.get("DRI", gripper::Deadline(timeout));
            times.push_back(rounded(std::chrono::steady_clock::now() - begin));
            program.output().partialResult(concat(sent, ": ", times.back(), " ms"));
        } catch (const gripper::CommunicationError &error) {
            const Failure missing = failureOf(error);
            failure = Failure(missing.code(), concat("replies are missing: ", missing.what()));
            program.output().partialResult(concat(sent, ": ", error.what()));
        }
        return sent < count;
    });
    reportReplies(program, sent, times, interruption ? interruption : failure);
}

/// The values that a gripper shows, as text.
std::string valuesOf(gripper::Connection &connection)
{
    std::string values;
    const gripper::Deadline deadline(connection.options().timeout);
    for (const gripper::Reply &reply : connection.exchange(gripper::imageRequests(), deadline))
        values.append(reply.value).append("\n");
    return values;
}

void reportChanges(Program &program, int id, Milliseconds taken, int reads,
                   const std::vector<std::chrono::steady_clock::time_point> &changes,
                   const std::optional<Failure> &interruption)
{
    std::string text = concat("gripper ", id, ": ", changes.size(), " new values in ", std::fixed,
                              std::setprecision(1), taken.count() / 1000, " s");
    Json json{{"gripper", id},
              {"seconds", rounded(taken / 1000)},
              {"reads", reads},
              {"newValues", changes.size()}};
    std::vector<long> intervals;
    for (std::size_t change = 1; change < changes.size(); ++change)
        intervals.push_back(
            std::lround(Milliseconds(changes[change] - changes[change - 1]).count()));
    if (intervals.empty()) {
        text += "; only a gripper that moves shows new values";
    } else {
        std::sort(intervals.begin(), intervals.end());
        const long median = intervals[intervals.size() / 2];
        const double rate = rounded(Milliseconds(1000.0 / static_cast<double>(median)));
        text += concat("; every ", median, " ms (", intervals.front(), " to ", intervals.back(),
                       " ms), ", std::fixed, std::setprecision(1), rate, " per second");
        json.update({{"medianMs", median},
                     {"minMs", intervals.front()},
                     {"maxMs", intervals.back()},
                     {"rate", rate}});
    }
    report(program, text, json, interruption);
}

void hz(Program &program, const CLI::App &command)
{
    const int id = program.listedGripperId();
    gripper::Connection connection(program.endpoint(), program.options(), id);
    program.output().begin(concat("reading gripper ", id));
    const std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now();
    const gripper::Seconds time = secondsOf(command, "--seconds").value_or(defaultHzTime);
    std::vector<std::chrono::steady_clock::time_point> changes;
    std::string values;
    int reads = 0;
    const auto interruption = repeat(connection, readInterval, [&] {
        const std::string before = std::exchange(values, valuesOf(connection));
        if (reads++ > 0 && values != before)
            changes.push_back(std::chrono::steady_clock::now());
        return std::chrono::steady_clock::now() - begin < time;
    });
    reportChanges(program, id, std::chrono::steady_clock::now() - begin, reads, changes,
                  interruption);
}

} // namespace

void addPing(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"ping", "Measure how long the daemon takes to answer.",
                    "The time includes the network and the daemon, but no gripper. Fails if a "
                    "reply is missing.",
                    "ping --count 100 --interval 0.1"},
                   ping);
    addNumber(command, "--count", 1, maxCount, "End after this number of requests (default 5).");
    addSeconds(command, "--interval", "Time between two requests (default 1).");
}

void addHz(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"hz", "Measure how often the daemon has new values of the gripper.",
                    "Counts changes, so let the gripper move meanwhile. Ctrl-C ends it early.",
                    "hz --seconds 10"},
                   hz);
    addSeconds(command, "--seconds", "End after this time (default 5).");
}

} // namespace gripperctl
