#pragma once

#include "kvpellogripper.h"
#include "modbusconstraintsfactory.h"

#include <QMap>
#include <QSharedPointer>
#include <QVector>

#include <functional>

class KvModbusCustom;

/// Finds grippers by probing a short, fixed list of slave ids. The process has one finder, created
/// at its first use and never destroyed. Every scan pumps events while it waits.
/// scanAllSerialPorts() also blocks the thread while `fuser` runs.
class KvPelloGripperFinder
{
public:
    using Gripper = QSharedPointer<KvPelloGripper>;

    static KvPelloGripperFinder *instance();

    /// The grippers that answer on `link`, in the order of __slaveIdsToScan. Opens the link
    /// unless it is open and leaves it open. Empty if the link cannot be opened.
    QVector<Gripper> scanPort(KvModbusAbstract &link);

    /// The grippers on every USB serial port that no process has open, by the full path of the
    /// port. Leaves out ports without grippers. The grippers are for inspection only: their links
    /// no longer exist, so do not call a function that uses the bus.
    QMap<QString, QVector<Gripper>> scanAllSerialPorts();

    /// The same for the gripper with this slave id on each port.
    QMap<QString, Gripper> scanAllSerialPorts(quint16 slaveId);

private:
    KvPelloGripperFinder() = default;

    void onEachAvailablePort(
        const std::function<void(const QString &portName, KvModbusCustom &link)> &visit);

    static KvPelloGripperFinder *_instance;
    static const QVector<quint16> __slaveIdsToScan;

    ModbusConstraintsFactory m_constraintsFactory;
};
