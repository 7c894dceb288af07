#pragma once

#include <QLockFile>
#include <QString>

#include <memory>

/// The lock file with which QSerialPort keeps a port to itself, taken by the same name, so that
/// whoever opens ports with it stays off the line. Given back at destruction.
class SerialPortLock
{
public:
    /// `device` as it is named on the command line: the name counts, links are not followed.
    explicit SerialPortLock(const QString &device);

    /// Waits up to `timeoutMs`, blocking, for another holder to let go. The lock of a process
    /// that is no more is taken over. False when it stays taken or cannot be made; problem()
    /// then says why.
    bool take(int timeoutMs);
    const QString &problem() const { return m_problem; }

    /// The lock file of `device`, empty when the system has no place for lock files.
    static QString pathOf(const QString &device);

private:
    QString describeFailure() const;

    QString m_path;
    QString m_problem;
    std::unique_ptr<QLockFile> m_lock;
};
