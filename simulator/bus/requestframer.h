#pragma once

#include <QByteArray>

#include <optional>

namespace sim {

/// Cuts the bytes from the master into request frames. If the function code determines the length
/// of a request, the request ends after this length. Any other request ends at the next silence.
/// After a bad CRC the start of the next request is unknown, so all bytes up to the next silence
/// form one frame.
class RequestFramer
{
public:
    struct Frame
    {
        QByteArray bytes;
        bool isValid = false; ///< the CRC is correct
    };

    void append(const QByteArray &bytes);
    /// The line is quiet: the remaining bytes form one frame.
    void endFrame();
    /// Removes and returns the next complete frame, if there is one.
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
