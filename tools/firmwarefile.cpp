#include "firmwarefile.h"

#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <sys/mman.h>

FirmwareFile::FirmwareFile(const QString &path, qint64 capacity)
    : m_problem(takeCopy(path, capacity))
{
}

QString FirmwareFile::pathOfCopy() const
{
    return QStringLiteral("/proc/self/fd/%1").arg(m_copy.handle());
}

QString FirmwareFile::takeCopy(const QString &path, qint64 capacity)
{
    const QString name = QStringLiteral("the image %1 ").arg(path);
    const QFileInfo info(path);
    if (!info.exists())
        return name + QStringLiteral("is not there");
    // Opening a FIFO would wait for its writer.
    if (!info.isFile())
        return name + QStringLiteral("is not a file");
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return name + QStringLiteral("cannot be read: ") + file.errorString();
    // One byte more than there is room for tells that it is too large.
    const QByteArray bytes = file.read(capacity + 1);
    if (file.error() != QFileDevice::NoError)
        return name + QStringLiteral("cannot be read: ") + file.errorString();
    if (bytes.isEmpty())
        return name + QStringLiteral("is empty");
    if (bytes.size() > capacity) {
        return name + QStringLiteral("has %1 bytes, and there is room for %2")
                          .arg(info.size())
                          .arg(capacity);
    }
    // Inherited by stm32flash, so it is not closed on exec.
    const int descriptor = ::memfd_create("firmware", 0);
    if (descriptor < 0) {
        return name + QStringLiteral("cannot be copied: ") +
               QString::fromLocal8Bit(std::strerror(errno));
    }
    if (!m_copy.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered,
                     QFileDevice::AutoCloseHandle) ||
        m_copy.write(bytes) != bytes.size())
        return name + QStringLiteral("cannot be copied: ") + m_copy.errorString();
    m_size = bytes.size();
    return QString();
}
