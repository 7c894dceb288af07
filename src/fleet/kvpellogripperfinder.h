#pragma once

#include "kvpellogripper.h"
#include "modbusconstraintsfactory.h"

#include <QMap>
#include <QSharedPointer>
#include <QVector>

#include <functional>

class KvModbusCustom;

/// Finds grippers by probing a fixed, short list of slave ids. One for the process, created on
/// first use and never destroyed. Every scan pumps events while it waits; the whole-system scans
/// also block the thread while `fuser` runs.
class KvPelloGripperFinder
{
public:
    using Gripper = QSharedPointer<KvPelloGripper>;

    static KvPelloGripperFinder *instance();

    /// The grippers that answer on `link`, in the order of __slaveIdsToScan. Opens the link
    /// unless it is open and leaves it open. Empty if the link cannot be opened.
    QVector<Gripper> scanPort(KvModbusAbstract &link);

    /// What answers on every USB serial port that nobody holds open, by full port path. Ports
    /// without grippers are left out. The links are closed and gone afterwards: the grippers are
    /// for inspection only, any bus access through them is invalid.
    QMap<QString, QVector<Gripper>> scanAllSerialPorts();

    /// The same for the one gripper with this slave id.
    QMap<QString, Gripper> scanAllSerialPorts(quint16 slaveId);

private:
    KvPelloGripperFinder() = default;

    void onEachAvailablePort(
        const std::function<void(const QString &portName, KvModbusCustom &link)> &visit);

    static KvPelloGripperFinder *_instance;
    static const QVector<quint16> __slaveIdsToScan;

    ModbusConstraintsFactory m_constraintsFactory;
};
