#include "serialportlock.h"

#include <QFileInfo>

namespace {
// QSerialPort's own list, in its order.
constexpr const char *kFolders[] = {"/var/lock",       "/etc/locks", "/var/spool/locks",
                                    "/var/spool/uucp", "/tmp",       "/data/local/tmp"};
} // namespace

SerialPortLock::SerialPortLock(const QString &device)
    : m_path(pathOf(device))
{
}

QString SerialPortLock::pathOf(const QString &device)
{
    const QString prefix = QStringLiteral("/dev/");
    QString name = device.startsWith(prefix) ? device.mid(prefix.size()) : device;
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    for (const char *folder : kFolders) {
        const QFileInfo info{QLatin1String(folder)};
        QString path = info.filePath() + QStringLiteral("/LCK..") + name;
        if (info.isReadable() && (QFileInfo::exists(path) || info.isWritable()))
            return path;
    }
    return QString();
}

bool SerialPortLock::take(int timeoutMs)
{
    if (m_path.isEmpty()) {
        m_problem = QStringLiteral("no folder for the port's lock file can be written");
        return false;
    }
    m_lock = std::make_unique<QLockFile>(m_path);
    // Only the death of its holder makes a lock stale: a flashing may take minutes.
    m_lock->setStaleLockTime(0);
    if (m_lock->tryLock(timeoutMs))
        return true;
    m_problem = describeFailure();
    return false;
}

QString SerialPortLock::describeFailure() const
{
    qint64 pid = 0;
    QString host;
    QString program;
    if (m_lock->error() != QLockFile::LockFailedError)
        return QStringLiteral("the lock file %1 cannot be made").arg(m_path);
    if (!m_lock->getLockInfo(&pid, &host, &program))
        return QStringLiteral("the lock file %1 is somebody else's").arg(m_path);
    return QStringLiteral("the port is held by process %1 (%2), says %3")
        .arg(pid)
        .arg(program, m_path);
}
