#pragma once

#include <QByteArray>

namespace sim {

/// Whoever hears what the master sends: a gripper's firmware, a starting gripper, a monitor.
class LineListener
{
public:
    LineListener() = default;
    LineListener(const LineListener &) = delete;
    LineListener &operator=(const LineListener &) = delete;
    virtual ~LineListener() = default;

    /// Bytes that came in at `baudRate`, in the pieces in which they arrived.
    virtual void receive(const QByteArray &bytes, int baudRate) = 0;
    /// The line has been quiet long enough to end any frame.
    virtual void onSilence() = 0;
};

} // namespace sim
