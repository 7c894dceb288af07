#pragma once

#include "bussimulator.h"

#include <QStringList>

#include <initializer_list>

/// A simulated line, plugged in. It runs in the event loop of the test and reports the traffic as
/// text: "9 read 2000" and "9 write 1000" are requests to the gripper with slave id 9.
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
    /// The path of the pty, which replaces the serial port.
    QString path() const { return m_bus.portPath(); }

    /// The gripper does not answer the next `times` requests that begin at `startAddress`.
    void silence(quint8 slaveId, quint16 startAddress, int times);
    /// The gripper ignores the next `times` resets. Jumps to the bootloader then fail.
    void ignoreResets(quint8 slaveId, int times = sim::Fault::unlimited);
    /// The gripper delays every answer to requests that begin at `startAddress`.
    void delay(quint8 slaveId, quint16 startAddress, int delayMs);

    /// The requests of the master since clearTraffic(), oldest first.
    QStringList requests() const;
    /// The requests, and "answer" for every answer.
    QStringList traffic() const;
    void clearTraffic() { m_bus.clearFrames(); }

private:
    sim::BusSimulator m_bus;
};
