#pragma once

#include <QByteArray>
#include <QMetaType>

namespace sim {

/// One frame that passed on the line.
struct FrameRecord
{
    enum class Direction {
        Request, ///< from the master: a request to any slave id, or noise
        Answer,  ///< from a gripper
    };

    qint64 timeUs = 0; ///< arrival of the last byte, or sending of the answer
    Direction direction = Direction::Request;
    QByteArray bytes;
    int baudRate = 0;      ///< the rate of the bytes
    bool isModbus = false; ///< a complete Modbus request, or an answer from a firmware
};

} // namespace sim

Q_DECLARE_METATYPE(sim::FrameRecord)
