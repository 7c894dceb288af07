#include "gripper/errors.h"
#include "gripper/line.h"

#include <utility>

namespace gripper {

namespace {

constexpr Seconds silenceOfRunningLine{0.3};
// A gripper that does not answer, or a scan, keeps the line busy for longer.
constexpr Seconds silenceOfDisturbedLine{2};

} // namespace

Maintenance::Maintenance(const Endpoint &endpoint, const Options &options)
    : Maintenance(endpoint, options, Deadline(options.timeout))
{
}

Maintenance::Maintenance(const Endpoint &endpoint, const Options &options, const Deadline &deadline)
    : m_connection(endpoint, options)
{
    try {
        m_connection.set({{"MUTE", 1}}, deadline);
        const bool isRunning = m_connection.get("DRI", deadline) == "RUNNING";
        m_connection.pause(isRunning ? silenceOfRunningLine : silenceOfDisturbedLine, deadline);
        if (deadline.isOver())
            throw TimedOut("the line did not become silent in time");
    } catch (...) {
        // Without a reply, the daemon may have muted polling, or may do so later.
        unmuteWithoutException();
        throw;
    }
}

Maintenance::~Maintenance()
{
    unmuteWithoutException();
}

Maintenance::Maintenance(Maintenance &&other) noexcept
    : m_connection(std::move(other.m_connection))
    , m_isOver(std::exchange(other.m_isOver, true))
{
}

void Maintenance::end()
{
    unmute(m_connection);
}

void Maintenance::unmute(Connection &connection)
{
    if (m_isOver)
        return;
    const Deadline deadline(connection.options().timeout);
    // While a flasher has the line, the daemon unmutes when the flasher ends.
    if (connection.get("UPG", deadline) != "1")
        connection.set({{"MUTE", 0}}, deadline);
    m_isOver = true;
}

void Maintenance::unmuteWithoutException() noexcept
{
    try {
        // The first connection may be waiting for a reply. A cancelled call must still unmute.
        Connection connection(m_connection.endpoint(), {m_connection.options().timeout, {}});
        unmute(connection);
    } catch (...) {
        m_connection.close();
    }
}

} // namespace gripper
