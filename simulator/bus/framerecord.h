#pragma once

#include <QByteArray>
#include <QMetaType>

namespace sim {

/// One frame as it passed on the line.
struct FrameRecord
{
    enum class Direction {
        Request, ///< from the master: for us, for others, or noise
        Answer,  ///< from a gripper
    };

    qint64 timeUs = 0; ///< last byte heard, or answer sent; on the simulator's timeline
    Direction direction = Direction::Request;
    QByteArray bytes;
    int baudRate = 0;      ///< at which they passed
    bool isModbus = false; ///< a whole request of Modbus, or an answer of a firmware
};

} // namespace sim

Q_DECLARE_METATYPE(sim::FrameRecord)
