#pragma once

#include <QObject>
#include <QPointer>

#include <functional>
#include <map>

namespace sim {

/// The clock of the simulated line, and the calls that are due on it. Times are microseconds
/// since the timeline began and never go back.
class Timeline : public QObject
{
    Q_OBJECT

public:
    using QObject::QObject;

    /// Microseconds since the beginning.
    virtual qint64 nowUs() const = 0;

    /// Calls `action` once, `delayUs` (0 or more) from now, unless `owner` is gone by then.
    void after(const QObject *owner, qint64 delayUs, std::function<void()> action);

protected:
    /// Calls every action that is due by `nowUs`, in order of time.
    void runDue(qint64 nowUs);
    bool hasDue() const { return !m_due.empty(); }
    /// When the next action is due. Only to be asked while hasDue().
    qint64 nextDueUs() const { return m_due.begin()->first; }
    /// The next action may have become another one.
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
