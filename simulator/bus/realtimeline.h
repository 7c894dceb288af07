#pragma once

#include "timeline.h"

#include <QElapsedTimer>
#include <QTimer>

namespace sim {

/// The monotonic clock of the machine. It calls the actions from the event loop. No timer runs
/// while no action waits.
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
