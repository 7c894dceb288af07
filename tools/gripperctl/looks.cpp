#include "looks.h"

#include "interruption.h"
#include "program.h"

#include <utility>

namespace gripperctl {

namespace {

// After this time, a daemon that does not answer shows as an outage.
constexpr gripper::Seconds lookTimeout{2};

constexpr std::chrono::milliseconds slice{10};

bool hasNoConnection(const Look &look)
{
    const auto *outage = std::get_if<gripper::Outage>(&look.items.front());
    return outage != nullptr && outage->reason == gripper::Outage::Reason::NoConnection;
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

/// Ends a look.
struct Stopped
{
};

} // namespace

const gripper::ReadingTime &Look::time() const
{
    return std::visit(
        [](const auto &item) -> const auto & { return item.time; }, items.front());
}

Looks::Looks(Program &program, gripper::Seconds interval, std::optional<int> count)
    : m_count(count)
{
    catchInterruptions();
    if (program.settings().endpoints.size() == 1)
        refuseUnusable(program);
    const gripper::Options options{program.timeoutOr(lookTimeout), [this] {
                                       if (m_isStopped)
                                           throw Stopped();
                                   }};
    const std::optional<int> gripper = program.settings().gripper;
    const std::vector<int> ids = gripper ? std::vector<int>{*gripper} : std::vector<int>();
    for (const gripper::Endpoint &endpoint : program.settings().endpoints) {
        gripper::Line line(endpoint, options);
        gripper::Watch watch = line.watch(ids, 1 / interval.count());
        beginLook(m_hosts.emplace_back(Host{std::move(line), std::move(watch)}));
    }
}

std::optional<Look> Looks::next(Clock::time_point end)
{
    bool isPending = true;
    while (isPending && Clock::now() < end) {
        isPending = false;
        for (Host &host : m_hosts) {
            throwIfInterrupted();
            if (!host.pending.valid())
                continue;
            isPending = true;
            if (host.pending.wait_for(slice) != std::future_status::ready)
                continue;
            Look look = host.pending.get();
            beginLook(host);
            return look;
        }
    }
    return std::nullopt;
}

Look Looks::look(Host &host)
{
    Look look{host.line.endpoint().text(), {}, {}, Standstill::No, {}};
    std::vector<gripper::Image> images;
    do {
        look.items.push_back(host.watch.next());
        if (const auto *image = std::get_if<gripper::Image>(&look.items.back()))
            images.push_back(*image);
    } while (!host.watch.isPeriodOver());
    if (hasNoConnection(look))
        host.driver.clear();
    else if (host.driver.empty())
        host.driver = driverOf(host.line);
    look.driver = host.driver;
    look.standstill = host.judge.judge(images);
    look.unchangedSince = host.judge.since();
    return look;
}

/// After the last look, none is pending.
void Looks::beginLook(Host &host) const
{
    if (!m_count || host.looks++ < *m_count)
        host.pending = std::async(std::launch::async, [&host] { return look(host); });
}

} // namespace gripperctl
