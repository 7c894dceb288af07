#include "framelog.h"

#include "timeline.h"

namespace sim {

namespace {
constexpr int timeWidth = 12;
constexpr int timeDecimals = 3;
} // namespace

void FrameLog::append(const FrameRecord &frame)
{
    m_frames.append(frame);
    if (m_frames.size() > maxFrames)
        m_frames.removeFirst();
}

QString traceLine(const FrameRecord &frame)
{
    const double timeMs = static_cast<double>(frame.timeUs) / static_cast<double>(usPerMs);
    const bool isRequest = frame.direction == FrameRecord::Direction::Request;
    const QString line = QStringLiteral("%1 %2 %3")
                             .arg(timeMs, timeWidth, 'f', timeDecimals)
                             .arg(isRequest ? QLatin1Char('>') : QLatin1Char('<'))
                             .arg(QString::fromLatin1(frame.bytes.toHex(' ')));
    return frame.isModbus ? line : QStringLiteral("%1 @%2").arg(line).arg(frame.baudRate);
}

} // namespace sim
