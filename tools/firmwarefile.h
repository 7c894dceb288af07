#pragma once

#include <QString>

/// A firmware image, looked at before the line is touched. Reads the whole file once, so that a
/// later reader does not fail half-way.
class FirmwareFile
{
public:
    /// The image at `path`, for a flash that takes `capacity` bytes.
    FirmwareFile(const QString &path, qint64 capacity);

    /// What is wrong with it, empty when nothing is.
    const QString &problem() const { return m_problem; }
    qint64 size() const { return m_size; }

private:
    QString check(const QString &path, qint64 capacity);

    qint64 m_size = 0;
    QString m_problem;
};
