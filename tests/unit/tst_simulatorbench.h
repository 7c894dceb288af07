#pragma once

#include "faulttext.h"
#include "line.h"
#include "manualtimeline.h"
#include "simulatedgripper.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QTest>

/// Reads the version of gripper 9. The answer is that of a TA3-1.6.14.
inline const char *const versionRequest = "09 03 01 f4 00 03 44 8d";
inline const char *const versionAnswer = "09 03 06 54 41 33 01 06 0e ab 8e";

/// A line with one gripper and a clock that only the test moves. It needs no pty and no event loop.
///
/// The frames in the tests come from another generator: pymodbus 3.0.0
/// (ModbusRtuFramer.buildPacket), which also computed the CRCs.
struct SimulatorBench : QObject
{
    explicit SimulatorBench(const char *version = "TA3-1.6.14", quint8 slaveId = 9,
                            const sim::GripperTiming &timing = {})
        : gripper(slaveId, *sim::GripperIdentity::fromVersion(slaveId, QLatin1String(version)),
                  timing, line, timeline, random)
    {
        connect(&line, &sim::Line::bytesToMaster, this,
                [this](const QByteArray &bytes) { sent.append(bytes); });
        connect(&line, &sim::Line::frameSeen, this,
                [this](const sim::FrameRecord &frame) { seen.append(frame); });
    }

    /// Sends `hex` as the master and returns the immediate answer as hex.
    QByteArray ask(const char *hex, int baudRate = 115200)
    {
        sent.clear();
        line.receive(QByteArray::fromHex(hex), baudRate);
        return sent.toHex(' ');
    }

    /// All bytes that the gripper has sent since ask(), as hex.
    QByteArray answered() const { return sent.toHex(' '); }

    void setFault(const char *words)
    {
        gripper.faults().set(sim::parseFault(QString::fromLatin1(words).split(QLatin1Char(' '))));
    }

    /// Moves the clock far enough to end any frame.
    void waitForSilence() { timeline.advanceMs(10); }

    sim::ManualTimeline timeline;
    sim::RandomSource random{1};
    sim::Line line{timeline};
    sim::SimulatedGripper gripper;
    QByteArray sent;
    QList<sim::FrameRecord> seen;
};
