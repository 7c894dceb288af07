#pragma once

#include <QByteArray>

#include <optional>

namespace sim {

/// Cuts the master's byte stream into request frames: by their length where the function code
/// tells it, otherwise at the next silence. Bytes that make no valid request by their length
/// wait for the silence too, because nothing says where the next request would begin.
class RequestFramer
{
public:
    struct Frame
    {
        QByteArray bytes;
        bool isValid = false; ///< the CRC is right
    };

    void append(const QByteArray &bytes);
    /// The line went quiet: what is left is one frame.
    void endFrame();
    /// The next frame that is complete, if any.
    std::optional<Frame> take();
    void clear();

private:
    std::optional<Frame> takeByLength();
    Frame takeAll();

    QByteArray m_pending;
    bool m_isQuiet = false;
    bool m_isOutOfStep = false;
};

} // namespace sim
