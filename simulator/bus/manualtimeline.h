#pragma once

#include "timeline.h"

namespace sim {

/// A clock that only advanceMs() moves.
class ManualTimeline : public Timeline
{
    Q_OBJECT

public:
    using Timeline::Timeline;

    qint64 nowUs() const override { return m_nowUs; }

    /// Moves the clock forward by `ms`. Calls every action that becomes due, at its time.
    void advanceMs(qint64 ms);

protected:
    void onNextDueChanged() override {}

private:
    qint64 m_nowUs = 0;
};

} // namespace sim
