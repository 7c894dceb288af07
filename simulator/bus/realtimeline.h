#pragma once

#include "timeline.h"

#include <QElapsedTimer>
#include <QTimer>

namespace sim {

/// The monotonic clock of the machine. Sleeps in the event loop until an action is due; with
/// none due there is no timer at all.
class RealTimeline : public Timeline
{
    Q_OBJECT

public:
    explicit RealTimeline(QObject *parent = nullptr);

    qint64 nowUs() const override;

protected:
    void onNextDueChanged() override;

private slots:
    void onTimeout();

private:
    QElapsedTimer m_clock;
    QTimer m_timer;
};

} // namespace sim
