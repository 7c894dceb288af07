#include "firmwarefile.h"

#include <QFile>
#include <QFileInfo>

FirmwareFile::FirmwareFile(const QString &path, qint64 capacity)
    : m_problem(check(path, capacity))
{
}

QString FirmwareFile::check(const QString &path, qint64 capacity)
{
    const QString name = QStringLiteral("the image %1 ").arg(path);
    const QFileInfo info(path);
    if (!info.exists())
        return name + QStringLiteral("is not there");
    if (!info.isFile())
        return name + QStringLiteral("is not a file");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return name + QStringLiteral("cannot be read: ") + file.errorString();
    // One byte more than there is room for tells that it is too large.
    m_size = file.read(capacity + 1).size();
    if (file.error() != QFileDevice::NoError)
        return name + QStringLiteral("cannot be read: ") + file.errorString();
    if (m_size == 0)
        return name + QStringLiteral("is empty");
    if (m_size > capacity) {
        return name + QStringLiteral("has %1 bytes, and there is room for %2")
                          .arg(info.size())
                          .arg(capacity);
    }
    return QString();
}
