#include "gripperbody.h"

#include "timeline.h"

namespace sim {

namespace {
constexpr int fullyOpen = 0;
constexpr int baseRate = 50;         // steps per second at speed 0
constexpr int ratePerSpeed = 2;      // added for each unit of speed
constexpr int autoReleaseRate = 100; // does not depend on the speed
constexpr int movingCurrent = 8;
constexpr int speedPerCurrent = 16;
constexpr int pushingCurrent = 32;
constexpr int forceNumerator = 7;
constexpr int forceDenominator = 8;
constexpr qint64 currentRiseUs = 200000;
} // namespace

GripperBody::GripperBody(bool isVacuum, qint64 activationUs)
    : m_isVacuum(isVacuum)
    , m_activationUs(activationUs)
{
}

void GripperBody::advance(qint64 nowUs)
{
    if (m_status == Status::Activating && nowUs >= m_activeFromUs)
        endActivation();
    if (m_status == Status::Releasing && m_faultCode == releasingFaultCode &&
        m_travel.isOverAt(nowUs))
        m_faultCode = releasedFaultCode;
    updateCounters(nowUs);
}

void GripperBody::setCommand(const BodyCommand &command, qint64 nowUs)
{
    advance(nowUs);
    const BodyCommand old = m_command;
    m_command = command;
    if (!command.activate) {
        deactivate(nowUs);
        return;
    }
    if (m_status == Status::Reset)
        beginActivation(nowUs);
    if (m_status != Status::Active)
        return;
    if (command.autoRelease) {
        beginAutoRelease(nowUs);
        return;
    }
    const bool isNewMove = command.goTo != old.goTo || command.position != old.position;
    if (isNewMove || command.speed != old.speed)
        retarget(nowUs, isNewMove);
}

void GripperBody::restart(qint64 nowUs)
{
    setCommand(BodyCommand(), nowUs);
}

void GripperBody::setObject(int position, qint64 nowUs)
{
    advance(nowUs);
    m_object = position;
    if (m_status == Status::Active)
        retarget(nowUs, false);
}

GripperBody::ObjectFlag GripperBody::objectFlag() const
{
    if (m_status != Status::Active || !m_command.goTo)
        return ObjectFlag::None;
    if (isMoving())
        return ObjectFlag::Moving;
    return m_isBlocked ? ObjectFlag::Held : ObjectFlag::Arrived;
}

GripperBody::VacuumStatus GripperBody::vacuumStatus() const
{
    const bool isWanted = m_status == Status::Active && m_command.goTo && m_command.position > 0;
    if (!m_isVacuum || !isWanted)
        return VacuumStatus::None;
    if (isMoving())
        return m_travel.isRising() ? VacuumStatus::Building : VacuumStatus::Holding;
    return m_isBlocked ? VacuumStatus::Leaking : VacuumStatus::Holding;
}

quint8 GripperBody::motorCurrent() const
{
    const int moving = movingCurrent + m_command.speed / speedPerCurrent;
    if (isMoving())
        return static_cast<quint8>(moving);
    if (!m_isBlocked)
        return 0;
    const int pushing = pushingCurrent + m_command.force * forceNumerator / forceDenominator;
    const qint64 pushedUs = qMin(m_nowUs - m_travel.endUs(), currentRiseUs);
    return static_cast<quint8>(moving + (pushing - moving) * pushedUs / currentRiseUs);
}

quint32 GripperBody::usage() const
{
    return m_isVacuum ? static_cast<quint32>(m_pumpUs / usPerSecond) : m_steps;
}

/// Updates the counters to `untilUs`. The current movement has lasted since the previous update.
void GripperBody::updateCounters(qint64 untilUs)
{
    m_steps +=
        static_cast<quint32>(qAbs(m_travel.positionAt(untilUs) - m_travel.positionAt(m_nowUs)));
    if (m_travel.isRising() || m_isBlocked) {
        // With a leak the pump still runs after the level has stopped rising.
        const qint64 pumpEndUs = m_isBlocked ? untilUs : qMin(untilUs, m_travel.endUs());
        m_pumpUs += qMax<qint64>(0, pumpEndUs - m_nowUs);
    }
    m_nowUs = untilUs;
}

void GripperBody::startTravel(const Travel &travel)
{
    updateCounters(travel.startUs());
    m_travel = travel;
    m_isBlocked = false;
}

void GripperBody::retarget(qint64 nowUs, bool isNewMove)
{
    const int from = m_travel.positionAt(nowUs);
    const int wanted = goal();
    const bool wasPumping = m_isBlocked || (m_travel.isRising() && !m_travel.isOverAt(nowUs));
    const bool isStopped = m_object != noObject && from <= m_object && wanted > m_object;
    startTravel(Travel::move(from, isStopped ? m_object : wanted, rate(), nowUs));
    m_isBlocked = isStopped;
    const bool isRising = m_travel.isRising() || m_isBlocked;
    if (isRising && isNewMove)
        ++m_cycles;
    if (isRising && !wasPumping)
        ++m_pumpStarts;
}

void GripperBody::deactivate(qint64 nowUs)
{
    // Only a change to deactivated clears the fault code, not a repeated command.
    if (m_status == Status::Reset)
        return;
    m_status = Status::Reset;
    m_faultCode = 0;
    startTravel(Travel::rest(goal(), nowUs));
}

void GripperBody::beginActivation(qint64 nowUs)
{
    ++m_activations;
    m_status = Status::Activating;
    m_activeFromUs = nowUs + m_activationUs;
    // The fingers open fully during the activation.
    const int from = m_travel.positionAt(nowUs);
    const qint64 rateForAll = from * usPerSecond / qMax<qint64>(1, m_activationUs) + 1;
    startTravel(Travel::move(from, fullyOpen, static_cast<int>(rateForAll), nowUs));
}

void GripperBody::endActivation()
{
    startTravel(Travel::rest(fullyOpen, m_activeFromUs));
    m_status = Status::Active;
    if (m_command.autoRelease)
        beginAutoRelease(m_activeFromUs);
    else
        retarget(m_activeFromUs, true);
}

void GripperBody::beginAutoRelease(qint64 nowUs)
{
    m_status = Status::Releasing;
    m_faultCode = releasingFaultCode;
    const int to = m_command.autoReleaseCloses && !m_isVacuum ? maxPosition : fullyOpen;
    startTravel(Travel::move(m_travel.positionAt(nowUs), to, autoReleaseRate, nowUs));
}

/// The position that the current command requests.
int GripperBody::goal() const
{
    if (m_status == Status::Active && m_command.goTo)
        return m_command.position;
    // Without a go-to, fingers keep their position and vacuum falls to 0.
    return m_isVacuum ? 0 : m_travel.positionAt(m_nowUs);
}

int GripperBody::rate() const
{
    return baseRate + ratePerSpeed * m_command.speed;
}

} // namespace sim
