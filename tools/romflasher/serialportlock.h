#pragma once

#include <QLockFile>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

namespace flasher {

/// Owns the lock files that QSerialPort uses for a port, under the same names, so programs that
/// open ports with QSerialPort keep off the line. The destructor removes the files.
class SerialPortLock
{
public:
    /// `device` is the name on the command line. QSerialPort locks by name and follows no links, so
    /// this locks the names that a link leads to as well.
    explicit SerialPortLock(const QString &device);

    /// Blocks for up to `timeoutMs` for each name that another process has locked. Replaces the
    /// lock of a dead process. Throws Failure if a name stays locked or cannot be locked.
    void take(int timeoutMs);

    /// The lock file of `device`; empty if the system has no folder for lock files.
    static QString pathOf(const QString &device);

private:
    QStringList m_paths;
    std::vector<std::unique_ptr<QLockFile>> m_locks;
};

} // namespace flasher
