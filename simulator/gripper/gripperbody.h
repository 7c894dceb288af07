#pragma once

#include "travel.h"

#include <QtGlobal>

namespace sim {

/// Fully closed.
constexpr int maxPosition = 255;

/// The command of the master, decoded from the output registers.
struct BodyCommand
{
    bool activate = false;
    quint8 mode = 0;
    bool goTo = false;
    bool autoRelease = false;
    bool autoReleaseCloses = false;
    quint8 position = 0;
    quint8 speed = 0;
    quint8 force = 0;
};

/// The moving part of a gripper: its fingers, or its vacuum with the pump. advance() computes the
/// state from the clock, so no timer runs during a movement.
class GripperBody
{
public:
    enum class Status : quint8 {
        Reset = 0,      ///< not activated
        Activating = 1, ///< activation under way
        Releasing = 2,  ///< auto-release under way or complete, until a deactivation
        Active = 3,     ///< ready for go-to
    };
    enum class ObjectFlag : quint8 {
        None = 0,    ///< no go-to requested
        Moving = 1,  ///< on the way to the requested position
        Held = 2,    ///< stopped on the way by an object (vacuum: by a leak)
        Arrived = 3, ///< at the requested position
    };
    enum class VacuumStatus : quint8 {
        None = 0,     ///< no vacuum requested
        Building = 1, ///< the pump runs and the level rises
        Holding = 2,  ///< at the requested level, the pump is off
        Leaking = 3,  ///< the pump runs and cannot reach the level
    };
    static constexpr int noObject = -1;
    static constexpr quint8 releasingFaultCode = 1; ///< during the movement of an auto-release
    static constexpr quint8 releasedFaultCode = 2;  ///< after that movement, until a deactivation

    /// Makes a deactivated body. An activation takes `activationUs`.
    GripperBody(bool isVacuum, qint64 activationUs);

    /// Computes the state at `nowUs`, which the queries below return.
    void advance(qint64 nowUs);
    void setCommand(const BodyCommand &command, qint64 nowUs);
    /// The power was off: deactivates and clears the command. Keeps the counters.
    void restart(qint64 nowUs);
    /// Puts an object at `position` (0 to 255), or removes it (noObject). The object stops a rising
    /// position.
    void setObject(int position, qint64 nowUs);
    /// Sets the fault code (0 to 15), which a deactivation clears.
    void setFaultCode(quint8 code) { m_faultCode = code; }

    const BodyCommand &command() const { return m_command; }
    int object() const { return m_object; }
    quint8 faultCode() const { return m_faultCode; }
    Status status() const { return m_status; }
    ObjectFlag objectFlag() const;
    VacuumStatus vacuumStatus() const;
    quint8 position() const { return static_cast<quint8>(m_travel.positionAt(m_nowUs)); }
    quint8 motorCurrent() const;

    /// Number of movements that closed the fingers or raised the vacuum.
    quint32 cycles() const { return m_cycles; }
    /// Vacuum: seconds that the pump ran. Fingers: steps that they moved.
    quint32 usage() const;
    /// Vacuum: number of pump starts. Fingers: number of activations.
    quint32 starts() const { return m_isVacuum ? m_pumpStarts : m_activations; }

private:
    void updateCounters(qint64 untilUs);
    void startTravel(const Travel &travel);
    void retarget(qint64 nowUs, bool isNewMove);
    void deactivate(qint64 nowUs);
    void beginActivation(qint64 nowUs);
    void endActivation();
    void beginAutoRelease(qint64 nowUs);
    bool isMoving() const { return !m_travel.isOverAt(m_nowUs); }
    int goal() const;
    int rate() const;

    bool m_isVacuum;
    qint64 m_activationUs;
    qint64 m_nowUs = 0;
    Status m_status = Status::Reset;
    qint64 m_activeFromUs = 0;
    Travel m_travel;
    bool m_isBlocked = false;
    BodyCommand m_command;
    int m_object = noObject;
    quint8 m_faultCode = 0;
    quint32 m_cycles = 0;
    quint32 m_activations = 0;
    quint32 m_pumpStarts = 0;
    quint32 m_steps = 0;
    qint64 m_pumpUs = 0;
};

} // namespace sim
