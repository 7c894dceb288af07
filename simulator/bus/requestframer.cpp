#include "requestframer.h"

#include "crc16.h"

namespace sim {

namespace {
constexpr int unknownLength = 0;
constexpr int fixedRequestLength = 8;
constexpr int byteCountOffset = 6;
constexpr int lengthWithoutData = 9;
// Longer than any request, so that more bytes without a silence can only be noise.
constexpr int maxFrameLength = 1024;

bool isFixedLength(quint8 function)
{
    return function >= 0x01 && function <= 0x06;
}

bool hasByteCount(quint8 function)
{
    return function == 0x0F || function == 0x10;
}

/// The length of the request at the start of `bytes`, if these bytes determine it.
int requestLength(const QByteArray &bytes)
{
    if (bytes.size() < fixedRequestLength)
        return unknownLength;
    const auto function = static_cast<quint8>(bytes.at(1));
    if (isFixedLength(function))
        return fixedRequestLength;
    if (hasByteCount(function))
        return lengthWithoutData + static_cast<quint8>(bytes.at(byteCountOffset));
    return unknownLength;
}
} // namespace

void RequestFramer::append(const QByteArray &bytes)
{
    m_isQuiet = false;
    m_pending.append(bytes);
}

void RequestFramer::endFrame()
{
    m_isQuiet = true;
}

std::optional<RequestFramer::Frame> RequestFramer::take()
{
    if (m_pending.isEmpty()) {
        m_isOutOfStep = m_isOutOfStep && !m_isQuiet;
        return std::nullopt;
    }
    if (!m_isOutOfStep) {
        std::optional<Frame> frame = takeByLength();
        if (frame)
            return frame;
    }
    if (m_isQuiet)
        return takeAll();
    if (m_pending.size() < maxFrameLength)
        return std::nullopt;
    const Frame noise = takeAll();
    m_isOutOfStep = true;
    return noise;
}

void RequestFramer::clear()
{
    m_pending.clear();
    m_isOutOfStep = false;
}

std::optional<RequestFramer::Frame> RequestFramer::takeByLength()
{
    const int length = requestLength(m_pending);
    if (length == unknownLength || m_pending.size() < length)
        return std::nullopt;
    const QByteArray bytes = m_pending.left(length);
    if (!hasValidCrc(bytes)) {
        m_isOutOfStep = true;
        return std::nullopt;
    }
    m_pending.remove(0, length);
    return Frame{bytes, true};
}

RequestFramer::Frame RequestFramer::takeAll()
{
    const QByteArray bytes = m_pending;
    clear();
    return Frame{bytes, hasValidCrc(bytes)};
}

} // namespace sim
