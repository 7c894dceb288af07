// Calls libgripper while scripted daemons misbehave at random.
//
//     client-schedules SCHEDULES [SEED]
//
// A schedule is a few calls on one object. The program prints one line of counts, and a line for
// each wrong result: a reply that belongs to another call, or a call that outlives its deadline.
#include "scripteddaemon.h"

#include <gripper/line.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using gripper::Seconds;

constexpr int workerCount = 4;
constexpr Seconds allowedDelay{0.05};
constexpr const char *outcomes[] = {"done",      "nak",           "ConnectionLost",
                                    "TimedOut",  "ProtocolError", "GripperMissing",
                                    "NotActive", "Fault",         "Interference"};
enum Outcome { Done, Nak, Lost, Late, Foreign, Missing, Inactive, Faulty, Disturbed, OutcomeCount };

struct Totals
{
    std::array<std::atomic<long>, OutcomeCount> counts{};
    std::atomic<long> wrong{0};
    std::atomic<long> late{0};
    std::atomic<long> worstUs{0};
};

/// The time that this thread was ready to run and no processor was free.
Seconds waitedForProcessor()
{
    std::ifstream file("/proc/thread-self/schedstat");
    double ran = 0;
    double waited = 0;
    file >> ran >> waited;
    return Seconds(waited / 1e9);
}

/// Finds times when the whole machine did not run this process.
class StallWatch
{
public:
    StallWatch()
        : m_thread([this] { run(); })
    {
    }

    ~StallWatch()
    {
        m_ends = true;
        m_thread.join();
    }

    /// The stalls since the start, in total.
    Seconds total() const { return Seconds(static_cast<double>(m_totalUs) / 1e6); }

private:
    void run()
    {
        while (!m_ends) {
            const auto before = Clock::now();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            const auto over = Clock::now() - before - std::chrono::milliseconds(5);
            if (over > std::chrono::milliseconds(5))
                m_totalUs += std::chrono::duration_cast<std::chrono::microseconds>(over).count();
        }
    }

    std::atomic<bool> m_ends{false};
    std::atomic<long> m_totalUs{0};
    std::thread m_thread;
};

class Worker
{
public:
    Worker(unsigned seed, Totals &totals, const StallWatch &stalls)
        : m_random(seed)
        , m_totals(totals)
        , m_stalls(stalls)
        , m_daemon(seed, std::chrono::milliseconds(30))
        , m_endpoint{"127.0.0.1", m_daemon.port()}
    {
    }

    void run(long schedules)
    {
        for (long i = 0; i < schedules; ++i) {
            if (random(3) == 0)
                useGripper();
            else
                useConnection();
        }
    }

private:
    int random(int below) { return std::uniform_int_distribution<int>(0, below - 1)(m_random); }

    Seconds timeout() { return Seconds(0.004 + 0.001 * random(16)); }

    void wrong(const std::string &text)
    {
        ++m_totals.wrong;
        std::printf("wrong: %s\n", text.c_str());
    }

    /// Judges the duration and counts the outcome. `act` gets the timeout and returns Done or Nak.
    template <typename Act>
    void call(const char *name, Seconds limit, Act &&act)
    {
        const auto began = Clock::now();
        const Seconds waited = waitedForProcessor();
        const Seconds stalled = m_stalls.total();
        const Outcome outcome = outcomeOf(act, limit);
        const Seconds took = Clock::now() - began;
        const Seconds over = took - limit;
        const Seconds excused = waitedForProcessor() - waited + (m_stalls.total() - stalled);
        ++m_totals.counts[outcome];
        const long overUs = static_cast<long>((over - excused).count() * 1e6);
        if (overUs > m_totals.worstUs)
            m_totals.worstUs = overUs;
        if (over - excused > allowedDelay) {
            ++m_totals.late;
            std::printf("late: %s took %.3f s with a timeout of %.3f s (%.3f s excused)\n", name,
                        took.count(), limit.count(), excused.count());
        }
    }

    template <typename Act>
    static Outcome outcomeOf(Act &&act, Seconds limit)
    {
        try {
            return act(limit);
        } catch (const gripper::ConnectionLost &) {
            return Lost;
        } catch (const gripper::TimedOut &) {
            return Late;
        } catch (const gripper::ProtocolError &) {
            return Foreign;
        } catch (const gripper::GripperMissing &) {
            return Missing;
        } catch (const gripper::NotActive &) {
            return Inactive;
        } catch (const gripper::Fault &) {
            return Faulty;
        } catch (const gripper::Interference &) {
            return Disturbed;
        } catch (const gripper::Refused &) {
            return Nak;
        }
    }

    /// A name that no other call of the last 40,000 has.
    std::string newName()
    {
        static constexpr char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
        constexpr int base = sizeof digits - 1;
        m_name = (m_name + 1) % (base * base * base);
        std::string name{digits[m_name / base / base], digits[m_name / base % base],
                         digits[m_name % base]};
        // The scripted daemon has other values for the names of the tables.
        const auto isKnown = [&](const gripper::GetVariable &row) { return row.name == name; };
        const bool isFixed = name[0] == 'L' || std::any_of(gripper::getVariables.begin(),
                                                           gripper::getVariables.end(), isKnown);
        return isFixed ? newName() : name;
    }

    void judgeValue(const gripper::Reply &reply, const std::string &name)
    {
        const bool isRight = reply.name == name &&
                             (reply.value == ScriptedDaemon::valueOf(name) || !reply.hasValue());
        if (!isRight)
            wrong("GET " + name + " got " + std::string(reply.name) + ' ' +
                  std::string(reply.value));
    }

    Outcome getSome(gripper::Connection &connection, Seconds limit)
    {
        std::vector<std::string> names(static_cast<std::size_t>(1 + random(20)));
        gripper::Batch batch;
        for (std::string &name : names)
            batch.get(name = newName());
        const auto &replies = connection.exchange(batch, gripper::Deadline(limit));
        for (std::size_t i = 0; i < names.size(); ++i)
            judgeValue(replies.at(i), names[i]);
        return Done;
    }

    Outcome setOne(gripper::Connection &connection, Seconds limit)
    {
        const int value = random(256);
        try {
            const bool isAcknowledged = connection.set({{"POS", value}}, gripper::Deadline(limit));
            // The daemon may also refuse an even value, but it never accepts an odd one.
            if (isAcknowledged && value % 2 != 0)
                wrong("SET POS " + std::to_string(value) + " got the reply of another request");
            return isAcknowledged ? Done : Nak;
        } catch (const gripper::CommunicationError &error) {
            const std::string request = "SET POS " + std::to_string(value);
            if (!error.unknown().empty() && error.unknown() != request)
                wrong(request + " left \"" + error.unknown() + "\" unknown");
            throw;
        }
    }

    void useConnection()
    {
        const std::optional<int> id = random(2) == 0 ? std::optional<int>(9) : std::nullopt;
        gripper::Connection connection(m_endpoint, options(), id);
        for (int calls = 2 + random(4); calls > 0; --calls) {
            if (random(2) == 0)
                call("get", timeout(), [&](Seconds limit) { return getSome(connection, limit); });
            else
                call("set", timeout(), [&](Seconds limit) { return setOne(connection, limit); });
        }
    }

    gripper::Options options()
    {
        gripper::Options options;
        options.timeout = timeout();
        if (random(2) == 0)
            options.onWaiting = [] {};
        return options;
    }

    void useGripper()
    {
        gripper::Line line(m_endpoint, options());
        call("state", timeout(), [&](Seconds limit) {
            line.state(limit);
            return Done;
        });
        call("scan", timeout(), [&](Seconds limit) {
            line.scan(limit);
            return Done;
        });
        call("waitUntilRunning", timeout(), [&](Seconds limit) {
            line.waitUntilRunning({9}, limit);
            return Done;
        });
        std::optional<gripper::Gripper> gripper;
        call("gripper", timeout(), [&](Seconds limit) {
            gripper.emplace(line.gripper(9, limit));
            return Done;
        });
        if (gripper)
            command(*gripper);
        watch();
    }

    void watch()
    {
        const gripper::Options waits = options();
        gripper::Watch watch(m_endpoint, waits, {}, 1000);
        // A period, then an exchange for the list and one for each of the two grippers.
        const Seconds limit = Seconds(0.001) + 3 * waits.timeout;
        for (int items = 0; items < 3; ++items)
            call("next", limit,
                 [&](Seconds) { return watch.next().index() == 0 ? Done : Missing; });
    }

    void command(gripper::Gripper &gripper)
    {
        for (int calls = 2; calls > 0; --calls) {
            const int which = random(7);
            call("command", timeout(), [&](Seconds limit) {
                switch (which) {
                case 0:
                    gripper.image(limit);
                    break;
                case 1:
                    gripper.activate(gripper::Again::No, limit);
                    break;
                case 2:
                    gripper.move(100, 255, 100, limit);
                    break;
                case 3:
                    gripper.stop(limit);
                    break;
                case 4:
                    gripper.release(false, limit);
                    break;
                case 5:
                    gripper.led(true, false, true, limit);
                    break;
                default:
                    gripper.deactivate(limit);
                }
                return Done;
            });
        }
    }

    std::mt19937 m_random;
    Totals &m_totals;
    const StallWatch &m_stalls;
    ScriptedDaemon m_daemon;
    gripper::Endpoint m_endpoint;
    int m_name = 0;
};

void print(const Totals &totals, long schedules)
{
    std::printf("schedules %ld, wrong %ld, late %ld, worst %.1f ms after the deadline", schedules,
                totals.wrong.load(), totals.late.load(),
                static_cast<double>(totals.worstUs.load()) / 1e3);
    for (std::size_t i = 0; i < std::size(outcomes); ++i)
        std::printf(", %s %ld", outcomes[i], totals.counts[i].load());
    std::printf("\n");
}

} // namespace

int main(int argumentCount, char **arguments)
{
    const long schedules = argumentCount > 1 ? std::atol(arguments[1]) : 1000;
    const auto seed =
        argumentCount > 2 ? static_cast<unsigned>(std::atol(arguments[2])) : std::random_device()();
    Totals totals;
    const StallWatch stalls;
    std::vector<std::thread> threads;
    std::printf("seed %u\n", seed);
    for (unsigned i = 0; i < workerCount; ++i) {
        threads.emplace_back([&, i] {
            Worker(seed * workerCount + i, totals, stalls).run(schedules / workerCount);
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    print(totals, schedules);
    return totals.wrong == 0 && totals.late == 0 ? 0 : 1;
}
