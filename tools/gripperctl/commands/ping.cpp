#include "commands.h"

#include "app.h"
#include "text.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <memory>
#include <numeric>

namespace gripperctl {

namespace {

constexpr int defaultCount = 5;
constexpr int maxCount = 1'000'000;
constexpr gripper::Seconds defaultInterval{1};
constexpr gripper::Seconds answerTimeout{2};

struct PingOptions
{
    std::optional<int> count;
    std::optional<gripper::Seconds> interval;
};

using Milliseconds = std::chrono::duration<double, std::milli>;

std::string timeOf(Milliseconds time)
{
    return concat(std::fixed, std::setprecision(3), time.count(), " ms");
}

double rounded(Milliseconds time)
{
    return std::round(time.count() * 1000) / 1000;
}

/// Sends requests one by one, and keeps the times until their replies.
class Pings
{
public:
    explicit Pings(Program &program)
        : m_program(program)
        , m_connection(program.endpoint(), program.options())
        , m_timeout(program.timeoutOr(answerTimeout))
    {
        m_request.get("DRI");
        // The time to connect belongs to no reply.
        m_connection.open(gripper::Deadline(m_timeout));
    }

    void send()
    {
        ++m_sent;
        const auto begin = std::chrono::steady_clock::now();
        try {
            m_connection.exchange(m_request, gripper::Deadline(m_timeout));
        } catch (const gripper::CommunicationError &error) {
            m_failure = failureOf(error);
            m_program.output().partialResult(concat(m_sent, ": ", error.what()));
            return;
        }
        m_times.emplace_back(std::chrono::steady_clock::now() - begin);
        m_program.output().partialResult(concat(m_sent, ": ", timeOf(m_times.back())));
    }

    void pause(gripper::Seconds time) { m_connection.pause(time, gripper::Deadline(time)); }

    /// Throws Failure if a reply is missing.
    void report() const
    {
        std::string text = concat(m_times.size(), " of ", m_sent, " replies");
        Json json{{"sent", m_sent}, {"received", m_times.size()}};
        if (!m_times.empty()) {
            const auto [min, max] = std::minmax_element(m_times.begin(), m_times.end());
            const Milliseconds mean =
                std::accumulate(m_times.begin(), m_times.end(), Milliseconds(0)) /
                static_cast<double>(m_times.size());
            text += concat(", min ", timeOf(*min), ", mean ", timeOf(mean), ", max ", timeOf(*max));
            json.update(
                {{"minMs", rounded(*min)}, {"meanMs", rounded(mean)}, {"maxMs", rounded(*max)}});
        }
        if (!m_failure) {
            m_program.output().result(text, json);
            return;
        }
        m_program.output().partialResult(text);
        throw Failure(m_failure->code(), concat("replies are missing: ", m_failure->what()), json);
    }

private:
    Program &m_program;
    gripper::Connection m_connection;
    gripper::Seconds m_timeout;
    gripper::Batch m_request;
    int m_sent = 0;
    std::vector<Milliseconds> m_times;
    std::optional<Failure> m_failure; ///< the last one
};

void ping(Program &program, const PingOptions &options)
{
    Pings pings(program);
    try {
        const int count = options.count.value_or(defaultCount);
        for (int sent = 1;; ++sent) {
            pings.send();
            if (sent == count)
                break;
            pings.pause(options.interval.value_or(defaultInterval));
        }
    } catch (const Interrupted &) {
        // The replies up to now are the result.
    }
    pings.report();
}

} // namespace

void addPing(CLI::App &app, Program &program)
{
    const auto options = std::make_shared<PingOptions>();
    CLI::App &command = addCommand(app,
                                   {"ping", "Measure how long the daemon takes to answer.",
                                    "The time holds the network and the daemon, but no gripper. "
                                    "Fails if a reply is missing.",
                                    "ping --count 100 --interval 0.1"},
                                   [&program, options] { ping(program, *options); });
    addNumber(command, "--count", options->count, 1, maxCount,
              "End after this number of requests (default 5).");
    addSeconds(command, "--interval", options->interval, "Time between two requests (default 1).");
}

} // namespace gripperctl
