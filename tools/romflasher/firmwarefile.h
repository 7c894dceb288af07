#pragma once

#include <QFile>
#include <QString>

namespace flasher {

/// Owns a copy of a firmware image in memory. stm32flash reads its file for minutes; no other
/// process can change this copy meanwhile.
class FirmwareFile
{
public:
    /// Copies the image at `path` for a flash with room for `capacity` bytes. Throws Failure if the
    /// image cannot be copied, is empty, or does not fit.
    FirmwareFile(const QString &path, qint64 capacity);

    qint64 size() const { return m_size; }
    /// A child process can open the copy at this path while this object exists.
    QString pathOfCopy() const;

private:
    qint64 m_size = 0;
    QFile m_copy;
};

} // namespace flasher
