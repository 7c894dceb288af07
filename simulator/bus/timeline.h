#pragma once

#include <QObject>
#include <QPointer>

#include <functional>
#include <map>

namespace sim {

constexpr qint64 usPerMs = 1000;
constexpr qint64 usPerSecond = 1000000;

/// The clock of the simulated line and the queue of delayed actions. Times are microseconds since
/// the start of the timeline and never decrease.
class Timeline : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// Microseconds since the start.
    virtual qint64 nowUs() const = 0;

    /// Calls `action` once after `delayUs` (0 or more), unless `owner` is destroyed before.
    void after(const QObject *owner, qint64 delayUs, std::function<void()> action);

protected:
    /// Calls every action that is due at `nowUs` or before, in the order of their times.
    void runDue(qint64 nowUs);
    bool hasDue() const { return !m_due.empty(); }
    /// The time of the next action. Must only be called while hasDue().
    qint64 nextDueUs() const { return m_due.begin()->first; }
    /// Called when the next action may have changed.
    virtual void onNextDueChanged() = 0;

private:
    struct Action
    {
        QPointer<const QObject> owner;
        std::function<void()> call;
    };

    std::multimap<qint64, Action> m_due;
};

} // namespace sim
