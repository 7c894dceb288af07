#pragma once

#include <QLockFile>
#include <QString>
#include <QStringList>

#include <memory>
#include <vector>

namespace flasher {

/// The lock file with which QSerialPort keeps a port to itself, taken by the same names, so that
/// whoever opens ports with it stays off the line. Given back at destruction.
class SerialPortLock
{
public:
    /// `device` as it is named on the command line. QSerialPort goes by the name and follows no
    /// links: of a link, the names that it leads to are locked as well.
    explicit SerialPortLock(const QString &device);

    /// Waits up to `timeoutMs` for each name, blocking, for another holder to let go. The lock of a
    /// process that is no more is taken over. False when it stays taken or cannot be made;
    /// problem() then says why.
    bool take(int timeoutMs);
    const QString &problem() const { return m_problem; }

    /// The lock file of `device`, empty when the system has no place for lock files.
    static QString pathOf(const QString &device);

private:
    QStringList m_paths;
    QString m_problem;
    std::vector<std::unique_ptr<QLockFile>> m_locks;
};

} // namespace flasher
