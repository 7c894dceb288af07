#include "gripper/watch.h"

#include "buswork.h"
#include "gripper/errors.h"
#include "statewait.h"

#include <chrono>
#include <utility>

namespace gripper {

namespace {

using Clock = Deadline::Clock;

constexpr double maxRate = 1000;
constexpr Seconds longestPeriod{86400};

Seconds periodOf(double rate)
{
    // This also refuses NaN.
    if (!(rate > 0 && rate <= maxRate) || Seconds(1 / rate) > longestPeriod)
        throw InvalidValue("a rate is from one period a day to 1000 a second, not " +
                           std::to_string(rate));
    return Seconds(1 / rate);
}

} // namespace

Watch::Watch(Endpoint endpoint, Options options, const std::vector<int> &ids, double rate)
    : m_connection(std::move(endpoint), std::move(options))
    , m_watchesAll(ids.empty())
    , m_period(periodOf(rate))
{
    for (const int id : ids)
        watchAlso(checkedId(id));
}

WatchItem Watch::next()
{
    if (m_items.empty()) {
        waitForPeriod();
        readAll();
    }
    WatchItem item = std::move(m_items.front());
    m_items.pop_front();
    return item;
}

/// After a slow consumer, the next period begins at once. Later periods do not catch up.
void Watch::waitForPeriod()
{
    const auto now = Clock::now();
    if (m_next && *m_next > now) {
        const Seconds time = *m_next - now;
        m_connection.pause(time, Deadline(time));
    }
    const auto begin = m_next ? std::max(*m_next, now) : now;
    m_next = begin + std::chrono::duration_cast<Clock::duration>(m_period);
}

void Watch::readAll()
{
    if (m_grippers.empty())
        findGrippers();
    for (auto &[id, watched] : m_grippers)
        m_items.push_back(read(id, watched));
    if (!m_watchesAll)
        return;
    // Every image has the list. A new gripper is read in the next period.
    for (const WatchItem &item : m_items) {
        if (const auto *image = std::get_if<Image>(&item)) {
            for (const int id : image->listed)
                watchAlso(id);
        }
    }
}

void Watch::findGrippers()
{
    const auto report = [this](Outage::Reason reason, const std::string &text) {
        m_items.push_back(outage(0, m_outage, reason, text));
    };
    try {
        const auto &replies =
            m_connection.exchange(lineRequests(), Deadline(m_connection.options().timeout));
        const LineImage line = decodeLine(replies, ReadingTime::now());
        for (const int id : line.ids.value_or(std::vector<int>()))
            watchAlso(id);
        if (m_grippers.empty())
            report(Outage::Reason::LinkDown, line.state().text);
    } catch (const CommunicationError &error) {
        report(Outage::Reason::NoConnection, error.what());
    }
}

WatchItem Watch::read(int id, Watched &watched)
{
    const auto report = [&](Outage::Reason reason, const std::string &text) {
        return outage(id, watched.outage, reason, text);
    };
    try {
        Image image =
            readImage(watched.connection, id, Deadline(watched.connection.options().timeout));
        if (!image.line.running)
            return report(Outage::Reason::LinkDown, image.line.text);
        if (!image.present)
            return report(Outage::Reason::Missing,
                          "the daemon does not list gripper " + std::to_string(id));
        watched.outage.reset();
        return image;
    } catch (const CommunicationError &error) {
        return report(Outage::Reason::NoConnection, error.what());
    }
}

/// Continues the present outage, or begins one.
Outage Watch::outage(int id, std::optional<Outage> &present, Outage::Reason reason,
                     const std::string &text)
{
    const ReadingTime now = ReadingTime::now();
    const bool continues = present && present->reason == reason;
    present = Outage{reason, id, text, now, continues ? present->since : now};
    return *present;
}

void Watch::watchAlso(int id)
{
    if (m_grippers.count(id) == 0)
        m_grippers.emplace(
            id, Watched{Connection(m_connection.endpoint(), m_connection.options(), id), {}});
}

Watch::Iterator::Iterator(Watch *watch)
    : m_watch(watch)
{
    if (m_watch != nullptr)
        m_item = m_watch->next();
}

Watch::Iterator &Watch::Iterator::operator++()
{
    m_item = m_watch->next();
    return *this;
}

} // namespace gripper
