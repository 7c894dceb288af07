#include "timeline.h"

#include <utility>

namespace sim {

void Timeline::after(const QObject *owner, qint64 delayUs, std::function<void()> action)
{
    m_due.emplace(nowUs() + delayUs, Action{owner, std::move(action)});
    onNextDueChanged();
}

void Timeline::runDue(qint64 nowUs)
{
    while (!m_due.empty() && m_due.begin()->first <= nowUs) {
        // Removed before the call, which may add actions.
        const Action action = std::move(m_due.begin()->second);
        m_due.erase(m_due.begin());
        if (action.owner)
            action.call();
    }
    onNextDueChanged();
}

} // namespace sim
