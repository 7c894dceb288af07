#pragma once

#include "framerecord.h"

#include <QList>
#include <QString>

namespace sim {

/// The latest frames of the line, oldest first.
class FrameLog
{
public:
    /// So many are kept.
    static constexpr int maxFrames = 10000;

    void append(const FrameRecord &frame);
    void clear() { m_frames.clear(); }
    const QList<FrameRecord> &frames() const { return m_frames; }

private:
    QList<FrameRecord> m_frames;
};

/// One line of the trace, without line ending: milliseconds, ">" for a frame from the master or
/// "<" for an answer, the bytes in hex, all separated by one space; the time is padded on the
/// left. Behind what is no Modbus stands "@" with the rate.
QString traceLine(const FrameRecord &frame);

} // namespace sim
