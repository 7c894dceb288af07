#pragma once

#include "bussimulator.h"

#include <QStringList>

#include <initializer_list>

/// A simulated line that is plugged in, in the event loop of the test. Tells the traffic as text:
/// "9 read 2000" and "9 write 1000" are requests to the gripper with slave id 9.
class SimulatedLine
{
public:
    struct Gripper
    {
        quint8 slaveId;
        const char *version;
    };

    explicit SimulatedLine(std::initializer_list<Gripper> grippers);

    sim::BusSimulator &bus() { return m_bus; }
    /// Of the pty that stands for the serial port.
    QString path() const { return m_bus.portPath(); }

    /// Lets the next `times` requests for these registers go without an answer.
    void silence(quint8 slaveId, quint16 startAddress, int times);
    /// Delays every answer for these registers.
    void delay(quint8 slaveId, quint16 startAddress, int delayMs);

    /// What the master has asked since clearTraffic(), oldest first.
    QStringList requests() const;
    /// The same, and "answer" for every answer.
    QStringList traffic() const;
    void clearTraffic() { m_bus.clearFrames(); }

private:
    sim::BusSimulator m_bus;
};
