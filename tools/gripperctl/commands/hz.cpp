#include "commands.h"

#include "app.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <memory>

namespace gripperctl {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::duration<double, std::milli>;

constexpr gripper::Seconds defaultTime{5};
constexpr gripper::Seconds readInterval{0.005};

struct HzOptions
{
    std::optional<gripper::Seconds> seconds;
};

/// The values that a gripper shows, as text.
std::string valuesOf(gripper::Connection &connection, const gripper::Deadline &deadline)
{
    std::string values;
    for (const gripper::Reply &reply : connection.exchange(gripper::imageRequests(), deadline))
        values.append(reply.value).append("\n");
    return values;
}

struct Measurement
{
    std::vector<Milliseconds> intervals; ///< between new values
    int newValues = 0;
    int reads = 0;
    gripper::Seconds time{0};
};

/// Reads much more often than the daemon does, until `time` is over or the user presses Ctrl-C.
Measurement measure(gripper::Connection &connection, gripper::Seconds time)
{
    Measurement measured;
    const auto begin = Clock::now();
    const gripper::Seconds timeout = connection.options().timeout;
    std::string values;
    std::optional<Clock::time_point> lastNew;
    try {
        while (Clock::now() - begin < time) {
            std::string read = valuesOf(connection, gripper::Deadline(timeout));
            const auto arrival = Clock::now();
            if (measured.reads++ > 0 && read != values) {
                ++measured.newValues;
                if (lastNew)
                    measured.intervals.emplace_back(arrival - *lastNew);
                lastNew = arrival;
            }
            values = std::move(read);
            connection.pause(readInterval, gripper::Deadline(readInterval));
        }
    } catch (const Interrupted &) {
        // The values up to now are the result.
    }
    measured.time = Clock::now() - begin;
    std::sort(measured.intervals.begin(), measured.intervals.end());
    return measured;
}

void hz(Program &program, const HzOptions &options)
{
    // Also refuses a gripper that the daemon does not list.
    const int id = program.gripper().id();
    gripper::Connection connection(program.endpoint(), program.options(), id);
    program.output().begin(concat("reading gripper ", id));
    const Measurement measured = measure(connection, options.seconds.value_or(defaultTime));
    program.output().endStage();
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << "gripper " << id << ": " << measured.newValues
         << " new values in " << measured.time.count() << " s";
    Json json{{"gripper", id},
              {"seconds", std::round(measured.time.count() * 1000) / 1000},
              {"reads", measured.reads},
              {"newValues", measured.newValues}};
    if (measured.intervals.empty()) {
        text << "; only a gripper that moves shows new values";
    } else {
        const double median = measured.intervals[measured.intervals.size() / 2].count();
        const double min = measured.intervals.front().count();
        const double max = measured.intervals.back().count();
        text << "; every " << std::setprecision(0) << median << " ms (" << min << " to " << max
             << " ms), " << std::setprecision(1) << 1000 / median << " per second";
        json.update({{"medianMs", std::round(median)},
                     {"minMs", std::round(min)},
                     {"maxMs", std::round(max)},
                     {"rate", std::round(10'000 / median) / 10}});
    }
    program.output().result(text.str(), json);
}

} // namespace

void addHz(CLI::App &app, Program &program)
{
    const auto options = std::make_shared<HzOptions>();
    CLI::App &command =
        addCommand(app,
                   {"hz", "Measure how often the daemon has new values of the gripper.",
                    "Counts changes, so let the gripper move meanwhile. Ctrl-C ends it early.",
                    "hz --seconds 10"},
                   [&program, options] { hz(program, *options); });
    addSeconds(command, "--seconds", options->seconds, "End after this time (default 5).");
}

} // namespace gripperctl
