#pragma once

#include "timeline.h"

namespace sim {

/// A clock that stands still until a test moves it.
class ManualTimeline : public Timeline
{
    Q_OBJECT

public:
    using Timeline::Timeline;

    qint64 nowUs() const override { return m_nowUs; }

    /// Moves the clock on by `ms`, stopping at every action that becomes due to call it.
    void advanceMs(qint64 ms);

protected:
    void onNextDueChanged() override {}

private:
    qint64 m_nowUs = 0;
};

} // namespace sim
