#include "gripperidentity.h"

#include "devicemap.h"

#include <QRegularExpression>

namespace sim {

namespace {
constexpr quint32 serialNumberBase = 1000;

quint16 word(int high, int low)
{
    return static_cast<quint16>((high & 0xFF) << 8 | (low & 0xFF));
}

bool readByte(const QString &text, quint8 *byte)
{
    bool ok = false;
    const uint value = text.toUInt(&ok);
    *byte = static_cast<quint8>(value);
    return ok && value <= map::byteMask;
}
} // namespace

std::optional<GripperIdentity> GripperIdentity::fromVersion(quint8 slaveId, const QString &version)
{
    GripperIdentity identity;
    identity.serialNumber = serialNumberBase + slaveId;
    if (!identity.setVersion(version))
        return std::nullopt;
    return identity;
}

bool GripperIdentity::setVersion(const QString &text)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(T[ABEF][\\x21-\\x7e])-([0-9]{1,3})\\.([0-9]{1,3})\\.([0-9]{1,3})\\z"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return false;
    letters = match.captured(1).toLatin1();
    return readByte(match.captured(2), &major) && readByte(match.captured(3), &minor) &&
           readByte(match.captured(4), &patch);
}

bool GripperIdentity::setSerial(const QString &text)
{
    static const QRegularExpression pattern(QStringLiteral("^([A-Za-z0-9]{1,3})-([0-9]{1,10})\\z"));
    const QRegularExpressionMatch match = pattern.match(text);
    if (!match.hasMatch())
        return false;
    serialPrefix = match.captured(1).toLatin1();
    bool ok = false;
    serialNumber = match.captured(2).toUInt(&ok);
    return ok;
}

QString GripperIdentity::versionText() const
{
    return QStringLiteral("%1-%2.%3.%4")
        .arg(QString::fromLatin1(letters))
        .arg(major)
        .arg(minor)
        .arg(patch);
}

QString GripperIdentity::serialText() const
{
    return QStringLiteral("%1-%2").arg(QString::fromLatin1(serialPrefix)).arg(serialNumber);
}

bool GripperIdentity::isVacuum() const
{
    return letters.startsWith("TE") || letters.startsWith("TF");
}

QVector<quint16> GripperIdentity::versionRegisters() const
{
    return {word(letters.at(0), letters.at(1)), word(letters.at(2), major), word(minor, patch)};
}

QVector<quint16> GripperIdentity::identityRegisters() const
{
    const QByteArray text = serialPrefix.leftJustified(map::serialTextCount * 2, '\0', true);
    return {word(text.at(0), text.at(1)), word(text.at(2), text.at(3)),
            static_cast<quint16>(serialNumber), static_cast<quint16>(serialNumber >> 16), year};
}

} // namespace sim
