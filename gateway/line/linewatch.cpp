#include "linewatch.h"

#include <gripper/errors.h>

#include <algorithm>
#include <utility>

namespace gateway {

namespace {

/// The daemon answers in less than a millisecond, except while it searches for a bootloader.
constexpr gripper::Seconds exchangeTime{1};

struct Ending
{
};

} // namespace

LineWatch::LineWatch(gripper::Endpoint endpoint, std::function<void(const Reading &)> deliver)
    : m_endpoint(std::move(endpoint))
    , m_deliver(std::move(deliver))
    , m_line(m_endpoint, options())
    , m_thread([this] { run(); })
{
}

LineWatch::~LineWatch()
{
    {
        const std::lock_guard lock(m_mutex);
        m_isEnding = true;
    }
    m_ends.notify_all();
    m_thread.join();
}

void LineWatch::run()
{
    auto next = Clock::now();
    while (!m_isEnding) {
        try {
            m_deliver(look());
        } catch (const Ending &) {
            return;
        }
        // After a slow look, the next one follows at once. Later looks do not catch up.
        next = std::max(next + period, Clock::now());
        waitUntil(next);
    }
}

Reading LineWatch::look()
{
    Reading reading;
    try {
        const auto &replies =
            m_line.exchange(gripper::lineRequests(), gripper::Deadline(exchangeTime));
        reading.line = gripper::decodeLine(replies, gripper::ReadingTime::now());
        const std::vector<int> ids = reading.line->ids.value_or(std::vector<int>());
        for (auto gripper = m_grippers.begin(); gripper != m_grippers.end();) {
            const bool isListed = std::find(ids.begin(), ids.end(), gripper->first) != ids.end();
            gripper = isListed ? std::next(gripper) : m_grippers.erase(gripper);
        }
        for (const int id : ids) {
            const auto gripper = m_grippers.try_emplace(id, m_endpoint, options(), id).first;
            const auto &values =
                gripper->second.exchange(gripper::imageRequests(), gripper::Deadline(exchangeTime));
            reading.images.push_back(gripper::decodeImage(id, values, gripper::ReadingTime::now()));
        }
    } catch (const gripper::CommunicationError &error) {
        reading.line.reset();
        reading.images.clear();
        reading.problem = error.what();
    }
    reading.time = gripper::ReadingTime::now();
    return reading;
}

void LineWatch::waitUntil(std::chrono::steady_clock::time_point time)
{
    std::unique_lock lock(m_mutex);
    m_ends.wait_until(lock, time, [this] { return m_isEnding.load(); });
}

gripper::Options LineWatch::options() const
{
    return {exchangeTime, [this] {
                if (m_isEnding)
                    throw Ending();
            }};
}

} // namespace gateway
