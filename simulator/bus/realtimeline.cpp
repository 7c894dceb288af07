#include "realtimeline.h"

namespace sim {

namespace {
constexpr qint64 kNsPerUs = 1000;
constexpr qint64 kUsPerMs = 1000;
} // namespace

RealTimeline::RealTimeline(QObject *parent)
    : Timeline(parent)
{
    m_clock.start();
    m_timer.setSingleShot(true);
    m_timer.setTimerType(Qt::PreciseTimer);
    connect(&m_timer, &QTimer::timeout, this, &RealTimeline::onTimeout);
}

qint64 RealTimeline::nowUs() const
{
    return m_clock.nsecsElapsed() / kNsPerUs;
}

void RealTimeline::onNextDueChanged()
{
    if (!hasDue()) {
        m_timer.stop();
        return;
    }
    // Rounded up: an action never comes before its time.
    const qint64 waitUs = qMax<qint64>(0, nextDueUs() - nowUs());
    m_timer.start(static_cast<int>((waitUs + kUsPerMs - 1) / kUsPerMs));
}

void RealTimeline::onTimeout()
{
    runDue(nowUs());
}

} // namespace sim
