#include "looks.h"

#include "interruption.h"
#include "program.h"

#include <csignal>
#include <utility>

namespace gripperctl {

namespace {

// After this time, a daemon that does not answer shows as an outage.
constexpr gripper::Seconds answerTimeout{2};

constexpr std::chrono::milliseconds slice{50};

bool hasNoConnection(const Look &look)
{
    const auto *outage = std::get_if<gripper::Outage>(&look.items.front());
    return outage != nullptr && outage->reason == gripper::Outage::Reason::NoConnection;
}

std::vector<gripper::WatchItem> periodOf(gripper::Watch &watch)
{
    std::vector<gripper::WatchItem> items;
    do
        items.push_back(watch.next());
    while (!watch.isPeriodOver());
    return items;
}

/// Empty if the daemon does not answer.
std::string driverOf(gripper::Line &line)
{
    try {
        return line.image().driver.value_or("");
    } catch (const gripper::Error &) {
        return {};
    }
}

void refuseUnusable(Program &program)
{
    const gripper::LineImage image = program.line().image();
    if (program.settings().gripper)
        refuseUnlisted(*program.settings().gripper, image.ids.value_or(std::vector<int>()),
                       image.link.value_or("?"));
}

/// While it exists, the main thread alone receives signals, also of threads that begin now.
class BlockedSignals
{
public:
    BlockedSignals()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~BlockedSignals() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    BlockedSignals(const BlockedSignals &) = delete;
    BlockedSignals &operator=(const BlockedSignals &) = delete;

private:
    sigset_t m_before = {};
};

} // namespace

const gripper::ReadingTime &Look::time() const
{
    return std::visit(
        [](const auto &item) -> const auto & { return item.time; }, items.front());
}

Looks::Looks(Program &program, double intervalSeconds, std::optional<int> count)
    : m_count(count)
    , m_hostCount(program.settings().endpoints.size())
{
    catchInterruptions();
    if (m_hostCount == 1)
        refuseUnusable(program);
    const gripper::Options options{program.timeoutOr(answerTimeout), [this] {
                                       if (m_isStopped)
                                           throw Stopped();
                                   }};
    const std::optional<int> gripper = program.settings().gripper;
    const std::vector<int> ids = gripper ? std::vector<int>{*gripper} : std::vector<int>();
    const BlockedSignals blocked;
    for (const gripper::Endpoint &endpoint : program.settings().endpoints) {
        gripper::Line line(endpoint, options);
        gripper::Watch watch = line.watch(ids, 1 / intervalSeconds);
        m_threads.emplace_back(&Looks::look, this, std::move(line), std::move(watch));
    }
}

Looks::~Looks()
{
    {
        // Under the lock, because a thread may be about to wait in push().
        const std::lock_guard lock(m_mutex);
        m_isStopped = true;
    }
    m_changed.notify_all();
    for (std::thread &thread : m_threads)
        thread.join();
}

std::optional<Look> Looks::next(Clock::time_point end)
{
    std::unique_lock lock(m_mutex);
    while (m_looks.empty()) {
        throwIfInterrupted();
        if (m_endedCount == m_hostCount || Clock::now() >= end)
            return std::nullopt;
        m_changed.wait_for(lock, slice);
    }
    throwIfInterrupted();
    Look look = std::move(m_looks.front());
    m_looks.pop_front();
    m_changed.notify_all();
    return look;
}

void Looks::look(gripper::Line line, gripper::Watch watch)
{
    try {
        std::string driver;
        for (int looks = 0; !m_count || looks < *m_count; ++looks) {
            Look look{line.endpoint().text(), {}, periodOf(watch)};
            if (hasNoConnection(look))
                driver.clear();
            else if (driver.empty())
                driver = driverOf(line);
            look.driver = driver;
            push(std::move(look));
        }
    } catch (const Stopped &) {
        return;
    }
    const std::lock_guard lock(m_mutex);
    ++m_endedCount;
    m_changed.notify_all();
}

/// Waits while the reader is slow.
void Looks::push(Look look)
{
    std::unique_lock lock(m_mutex);
    m_changed.wait(lock, [this] { return m_isStopped || m_looks.size() < m_hostCount; });
    if (m_isStopped)
        throw Stopped();
    m_looks.push_back(std::move(look));
    m_changed.notify_all();
}

} // namespace gripperctl
