#pragma once

#include "framerecord.h"

#include <QList>
#include <QString>

namespace sim {

/// Keeps the latest frames of the line, oldest first.
class FrameLog
{
public:
    static constexpr int maxFrames = 10000;

    void append(const FrameRecord &frame);
    void clear() { m_frames.clear(); }
    const QList<FrameRecord> &frames() const { return m_frames; }

private:
    QList<FrameRecord> m_frames;
};

/// One line of the trace, without line ending. It has the time in milliseconds (padded on the
/// left), ">" for a request or "<" for an answer, and the bytes in hexadecimal. A frame that is not
/// Modbus is followed by "@" and the baud rate.
QString traceLine(const FrameRecord &frame);

} // namespace sim
