#pragma once

#include <QtGlobal>

namespace sim {

/// One movement at a constant rate between two positions of 0 to 255, or a rest at one position. It
/// computes the position for any time, in microseconds.
class Travel
{
public:
    /// Makes a rest at `position` that starts at `nowUs`.
    static Travel rest(int position, qint64 nowUs);
    /// Makes a movement of `ratePerSecond` (1 or more) steps per second that starts at `nowUs`.
    static Travel move(int from, int to, int ratePerSecond, qint64 nowUs);

    int positionAt(qint64 nowUs) const;
    bool isOverAt(qint64 nowUs) const { return nowUs >= m_endUs; }
    bool isRising() const { return m_to > m_from; }
    qint64 startUs() const { return m_startUs; }
    qint64 endUs() const { return m_endUs; }

private:
    int m_from = 0;
    int m_to = 0;
    qint64 m_startUs = 0;
    qint64 m_endUs = 0;
};

} // namespace sim
