#include "firmwareimage.h"

#include <QCryptographicHash>
#include <QRegularExpression>

namespace sim {

namespace {
constexpr quint32 bodySeed = 20011;
constexpr quint32 bodyFactor = 1664525;
constexpr quint32 bodyIncrement = 1013904223;

QByteArray bodyOf(int size)
{
    QByteArray body;
    quint32 state = bodySeed;
    for (int i = 0; i < size; ++i) {
        state = state * bodyFactor + bodyIncrement;
        body.append(static_cast<char>(state >> 24));
    }
    return body;
}

QByteArray digestOf(const QByteArray &lines, const QByteArray &body)
{
    return QCryptographicHash::hash(lines + body, QCryptographicHash::Sha1).toHex();
}
} // namespace

QByteArray FirmwareImage::make(const QString &version, int size)
{
    const QByteArray body = bodyOf(size - headSize);
    const QByteArray lines = "gripper-simulator firmware\nversion=" + version.toLatin1() +
                             "\nsize=" + QByteArray::number(size) + '\n';
    const QByteArray head = lines + "sha1=" + digestOf(lines, body) + '\n';
    return head.leftJustified(headSize, '\0') + body;
}

QString FirmwareImage::versionIn(const QByteArray &flash)
{
    static const QRegularExpression pattern(
        QStringLiteral("^(gripper-simulator firmware\nversion=([!-~]{1,32})\nsize=([0-9]{1,7})\n)"
                       "sha1=([0-9a-f]{40})\n"));
    const QRegularExpressionMatch match = pattern.match(QString::fromLatin1(flash.left(headSize)));
    const int size = match.captured(3).toInt();
    if (!match.hasMatch() || size <= headSize || size > flash.size())
        return QString();
    const QByteArray body = flash.mid(headSize, size - headSize);
    if (digestOf(match.captured(1).toLatin1(), body) != match.captured(4).toLatin1())
        return QString();
    return match.captured(2);
}

} // namespace sim
