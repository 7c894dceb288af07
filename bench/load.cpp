// Puts a load on a line server on loopback, and prints the results as one line of JSON. It has one
// thread, so that the server has the second processor for itself.

#include "histogram.h"
#include "loadclient.h"
#include "loadoptions.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <err.h>
#include <functional>
#include <queue>
#include <random>
#include <sys/epoll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;
// Long enough for a server that accepts thousands of clients, and for a busy machine.
constexpr std::int64_t drainNs = 30 * nanosecondsPerSecond;
constexpr std::int64_t silenceNs = nanosecondsPerSecond / 50;

std::int64_t toNs(double seconds)
{
    return static_cast<std::int64_t>(seconds * static_cast<double>(nanosecondsPerSecond));
}

double toSeconds(std::int64_t nanoseconds)
{
    return static_cast<double>(nanoseconds) / static_cast<double>(nanosecondsPerSecond);
}

/// Processor time of all threads of the process so far; 0 for process 0.
double cpuSeconds(pid_t process)
{
    clockid_t clock{};
    timespec used{};
    if (process == 0)
        return 0.0;
    if (::clock_getcpuclockid(process, &clock) != 0 || ::clock_gettime(clock, &used) != 0)
        errx(1, "no processor time of process %d", process);
    return static_cast<double>(used.tv_sec) + toSeconds(used.tv_nsec);
}

class Load
{
public:
    explicit Load(const LoadOptions &options)
        : m_options(options)
        , m_epoll(::epoll_create1(EPOLL_CLOEXEC))
    {
        m_clients.reserve(options.clients);
    }
    ~Load() { ::close(m_epoll); }
    Load(const Load &) = delete;
    Load &operator=(const Load &) = delete;

    void runClosed();
    void runPaced();
    void runHold();

private:
    struct Use
    {
        std::int64_t at = 0;
        double server = 0.0;
        double self = 0.0;
    };

    LoadClient &connectOne();
    Use useNow() const;
    template <typename Taken>
    void takeReplies(std::int64_t until, Taken taken);
    void startMeasuring();
    void drain();
    void expectSilence();
    void print() const;

    const LoadOptions &m_options;
    int m_epoll = -1;
    std::vector<LoadClient> m_clients;
    Histogram m_latency;        ///< from the time of sending
    Histogram m_latencyFromDue; ///< from the time at which sending was due
    Histogram m_lateness;       ///< delay of the load program itself
    Use m_start;
    Use m_end;
    std::size_t m_missing = 0;
};

LoadClient &Load::connectOne()
{
    const std::size_t index = m_clients.size();
    LoadClient &client = m_clients.emplace_back(m_options.port, m_options.reply);
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.u64 = index;
    if (::epoll_ctl(m_epoll, EPOLL_CTL_ADD, client.descriptor(), &event) != 0)
        err(1, "epoll_ctl");
    return client;
}

Load::Use Load::useNow() const
{
    return {nowNs(), cpuSeconds(m_options.server), cpuSeconds(::getpid())};
}

/// Waits for input, at most until the time `until`, and takes all of it.
template <typename Taken>
void Load::takeReplies(std::int64_t until, Taken taken)
{
    static std::array<epoll_event, 256> events;
    const std::int64_t left = std::max<std::int64_t>(0, until - nowNs());
    const timespec timeout{left / nanosecondsPerSecond, left % nanosecondsPerSecond};
    const int count =
        ::epoll_pwait2(m_epoll, events.data(), static_cast<int>(events.size()), &timeout, nullptr);
    for (int i = 0; i < count; ++i) {
        LoadClient &client = m_clients[events[static_cast<std::size_t>(i)].data.u64];
        unsigned replies = client.receive();
        const std::int64_t at = nowNs();
        while (replies > 0) {
            const LoadClient::Batch answered = client.takeAnswered(replies);
            m_latency.add(at - answered.sentAt, answered.count);
            m_latencyFromDue.add(at - answered.dueAt, answered.count);
            replies -= answered.count;
        }
        taken(client);
    }
}

void Load::startMeasuring()
{
    m_latency = Histogram();
    m_latencyFromDue = Histogram();
    m_lateness = Histogram();
    m_start = useNow();
}

/// Waits for the missing replies. Counts the replies that do not come.
void Load::drain()
{
    const auto isDone = [](const LoadClient &client) {
        return client.pending() == 0 && !client.isInsideReply();
    };
    const std::int64_t deadline = nowNs() + drainNs;
    while (!std::all_of(m_clients.begin(), m_clients.end(), isDone) && nowNs() < deadline)
        takeReplies(deadline, [](LoadClient &) {});
    for (const LoadClient &client : m_clients)
        m_missing += client.pending();
}

/// A surplus reply ends the program.
void Load::expectSilence()
{
    takeReplies(nowNs() + silenceNs, [](LoadClient &) {});
}

void Load::print() const
{
    std::uint64_t wrong = 0;
    for (const LoadClient &client : m_clients)
        wrong += client.wrongReplies();
    std::printf(
        "{\"seconds\": %.6f, \"replies\": %llu, \"wrong\": %llu, \"missing\": %zu, "
        "\"server_cpu\": %.6f, \"own_cpu\": %.6f, \"p50\": %.2f, \"p99\": %.2f, "
        "\"p999\": %.2f, \"max\": %.2f, \"due_p999\": %.2f, \"due_max\": %.2f, "
        "\"late_p999\": %.2f}\n",
        toSeconds(m_end.at - m_start.at), static_cast<unsigned long long>(m_latency.count()),
        static_cast<unsigned long long>(wrong), m_missing, m_end.server - m_start.server,
        m_end.self - m_start.self, m_latency.quantileUs(0.5), m_latency.quantileUs(0.99),
        m_latency.quantileUs(0.999), m_latency.largestUs(), m_latencyFromDue.quantileUs(0.999),
        m_latencyFromDue.largestUs(), m_lateness.quantileUs(0.999));
    std::fflush(stdout);
}

void Load::runClosed()
{
    std::string batch;
    for (unsigned i = 0; i < m_options.depth; ++i)
        batch += m_options.request;
    for (unsigned i = 0; i < m_options.clients; ++i)
        connectOne();
    const auto runUntil = [&](std::int64_t until) {
        while (nowNs() < until)
            takeReplies(until, [&](LoadClient &client) {
                if (client.pending() == 0)
                    client.send(batch, m_options.depth, nowNs());
            });
    };
    for (LoadClient &client : m_clients)
        client.send(batch, m_options.depth, nowNs());
    runUntil(nowNs() + toNs(m_options.warmUpSeconds));
    startMeasuring();
    runUntil(m_start.at + toNs(m_options.seconds));
    m_end = useNow();
    // The printed figures contain only the replies of the measured time.
    const Histogram measured = m_latency;
    drain();
    expectSilence();
    m_latency = measured;
    print();
}

/// Each client has random pauses of half to one and a half times their mean, so that the load does
/// not fall into step with the server.
void Load::runPaced()
{
    using Due = std::pair<std::int64_t, std::size_t>;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> due;
    std::mt19937_64 random(1);
    const double mean = m_options.clients / m_options.rate;
    std::uniform_real_distribution<double> gap(0.5 * mean, 1.5 * mean);
    for (std::size_t i = 0; i < m_options.clients; ++i) {
        connectOne();
        due.emplace(nowNs() + toNs(gap(random)), i);
    }
    const auto runUntil = [&](std::int64_t until) {
        while (nowNs() < until) {
            const auto [at, index] = due.top();
            const std::int64_t now = nowNs();
            if (now < at) {
                takeReplies(std::min(at, until), [](LoadClient &) {});
                continue;
            }
            m_lateness.add(now - at);
            due.pop();
            due.emplace(at + toNs(gap(random)), index);
            m_clients[index].send(m_options.request, 1, at);
        }
    };
    runUntil(nowNs() + toNs(m_options.warmUpSeconds));
    startMeasuring();
    runUntil(m_start.at + toNs(m_options.seconds));
    m_end = useNow();
    // Late replies count too: the worst may be among them.
    drain();
    expectSilence();
    print();
}

void Load::runHold()
{
    startMeasuring();
    for (unsigned i = 0; i < m_options.clients; ++i)
        connectOne().send(m_options.request, 1, nowNs());
    drain();
    m_end = useNow();
    print();
    std::array<char, 64> ignored{};
    while (::read(STDIN_FILENO, ignored.data(), ignored.size()) > 0)
        continue;
}

} // namespace

int main(int argc, char **argv)
{
    const LoadOptions options = readLoadOptions(argc, argv);
    // Without this, the kernel lets the process sleep 50 us too long.
    ::prctl(PR_SET_TIMERSLACK, 1);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
    Load load(options);
    switch (options.mode) {
    case LoadOptions::Mode::Closed:
        load.runClosed();
        return 0;
    case LoadOptions::Mode::Paced:
        load.runPaced();
        return 0;
    case LoadOptions::Mode::Hold:
        load.runHold();
        return 0;
    }
}
