#include "realtimeline.h"

namespace sim {

namespace {
constexpr qint64 nsPerUs = 1000;
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
    return m_clock.nsecsElapsed() / nsPerUs;
}

void RealTimeline::onNextDueChanged()
{
    if (!hasDue()) {
        m_timer.stop();
        return;
    }
    // Rounded up, so that no action runs before its time.
    const qint64 waitUs = qMax<qint64>(0, nextDueUs() - nowUs());
    m_timer.start(static_cast<int>((waitUs + usPerMs - 1) / usPerMs));
}

void RealTimeline::onTimeout()
{
    runDue(nowUs());
}

} // namespace sim
