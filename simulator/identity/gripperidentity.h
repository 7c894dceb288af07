#pragma once

#include <QString>
#include <QVector>

#include <optional>

namespace sim {

/// The version, serial number and production year of a gripper.
struct GripperIdentity
{
    QByteArray letters; ///< three characters, the first two are the family code
    quint8 major = 0;
    quint8 minor = 0;
    quint8 patch = 0;
    QByteArray serialPrefix = "SIM"; ///< up to three characters
    quint32 serialNumber = 0;
    quint16 year = 2024;

    /// The identity for `version` (see setVersion) with the default serial number SIM-(1000 +
    /// `slaveId`). Empty when `version` is not a version text.
    static std::optional<GripperIdentity> fromVersion(quint8 slaveId, const QString &version);

    /// Sets the version from a text such as "TA3-1.6.14": the family (TA, TB, TE or TF), a third
    /// character, and three numbers of 0 to 255. Returns false for any other text.
    bool setVersion(const QString &text);
    /// Sets the serial number from a text such as "ABC-0042": one to three letters or digits, "-",
    /// and a decimal number of 32 bits. Returns false for any other text.
    bool setSerial(const QString &text);

    QString versionText() const;
    QString serialText() const;
    /// Whether the gripper holds its object by vacuum.
    bool isVacuum() const;

    /// The registers of the version block. The first character is in the high byte.
    QVector<quint16> versionRegisters() const;
    /// The registers of the identity block. The first character is in the high byte.
    QVector<quint16> identityRegisters() const;
};

} // namespace sim
