#include "firmwarefile.h"

#include "failure.h"

#include <QFileInfo>

#include <cerrno>

#include <sys/mman.h>

namespace flasher {

namespace {

[[noreturn]] void refuse(const QString &path, const QString &problem)
{
    throw Failure{ExitCode::CannotBegin, QStringLiteral("the image %1 %2").arg(path, problem)};
}

/// The first `maxSize` bytes of the file.
QByteArray read(const QString &path, qint64 maxSize)
{
    const QFileInfo info(path);
    if (!info.exists())
        refuse(path, QStringLiteral("does not exist"));
    // Opening a FIFO would wait for its writer.
    if (!info.isFile())
        refuse(path, QStringLiteral("is not a regular file"));
    QFile file(path);
    QByteArray bytes;
    if (file.open(QIODevice::ReadOnly))
        bytes = file.read(maxSize);
    if (file.error() != QFileDevice::NoError)
        refuse(path, QStringLiteral("cannot be read: ") + file.errorString());
    return bytes;
}

} // namespace

FirmwareFile::FirmwareFile(const QString &path, qint64 capacity)
{
    // If the read returns more than `capacity` bytes, the image is too large.
    const QByteArray bytes = read(path, capacity + 1);
    if (bytes.isEmpty())
        refuse(path, QStringLiteral("is empty"));
    if (bytes.size() > capacity) {
        refuse(path, QStringLiteral("has %1 bytes, but there is room for %2 only")
                         .arg(QFileInfo(path).size())
                         .arg(capacity));
    }
    // Without MFD_CLOEXEC, because stm32flash inherits the descriptor.
    const int descriptor = ::memfd_create("firmware", 0);
    if (descriptor < 0)
        refuse(path, QStringLiteral("cannot be copied: ") + qt_error_string(errno));
    if (!m_copy.open(descriptor, QIODevice::WriteOnly | QIODevice::Unbuffered,
                     QFileDevice::AutoCloseHandle) ||
        m_copy.write(bytes) != bytes.size())
        refuse(path, QStringLiteral("cannot be copied: ") + m_copy.errorString());
    m_size = bytes.size();
}

QString FirmwareFile::pathOfCopy() const
{
    return QStringLiteral("/proc/self/fd/%1").arg(m_copy.handle());
}

} // namespace flasher
