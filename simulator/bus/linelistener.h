#pragma once

#include <QByteArray>

namespace sim {

/// Receives what the master sends. A gripper and each of its modes are listeners.
class LineListener
{
public:
    LineListener() = default;
    LineListener(const LineListener &) = delete;
    LineListener &operator=(const LineListener &) = delete;
    virtual ~LineListener() = default;

    /// Called with the bytes of each read from the port, which was set to `baudRate`.
    virtual void receive(const QByteArray &bytes, int baudRate) = 0;
    /// Called when the line has been quiet for Line::frameGapUs, which ends any frame.
    virtual void onSilence() = 0;
};

} // namespace sim
