#pragma once

#include <QString>
#include <QVector>

#include <optional>

namespace sim {

/// What a gripper is from the factory on.
struct GripperIdentity
{
    QByteArray letters; ///< three characters, the first two are the family code
    quint8 major = 0;
    quint8 minor = 0;
    quint8 patch = 0;
    QByteArray serialPrefix = "SIM"; ///< up to three characters
    quint32 serialNumber = 0;
    quint16 year = 2024;

    /// A gripper of `version` (see setVersion) with the serial number that it has unless it is
    /// told otherwise: 1000 + `slaveId`. Nothing when `version` is no version text.
    static std::optional<GripperIdentity> fromVersion(quint8 slaveId, const QString &version);

    /// Takes a version text such as "TA3-1.6.14": one of the families TA, TB,
    /// TE and TF, a third character, three numbers of 0 to 255. False for any other text.
    bool setVersion(const QString &text);
    /// Takes a serial number such as "ABC-0042": one to three letters or digits, "-", a decimal
    /// number of 32 bits. False for any other text.
    bool setSerial(const QString &text);

    QString versionText() const;
    QString serialText() const;
    /// Whether the family holds by vacuum.
    bool isVacuum() const;

    /// The version block as the registers carry it: first character in the high byte.
    QVector<quint16> versionRegisters() const;
    /// The identity block as the registers carry it: first character in the high byte.
    QVector<quint16> identityRegisters() const;
};

} // namespace sim
