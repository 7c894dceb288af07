#pragma once

#include <QFile>
#include <QString>

/// A firmware image, checked and copied before the line is touched. stm32flash reads its file for
/// minutes, so it gets the copy, which nobody else can change.
class FirmwareFile
{
public:
    /// The image at `path`, for a flash that takes `capacity` bytes.
    FirmwareFile(const QString &path, qint64 capacity);

    /// Why it cannot be written, empty when it can.
    const QString &problem() const { return m_problem; }
    qint64 size() const { return m_size; }
    /// The path by which a child process opens the copy, as long as this object lives.
    QString pathOfCopy() const;

private:
    QString takeCopy(const QString &path, qint64 capacity);

    qint64 m_size = 0;
    QFile m_copy;
    QString m_problem;
};
