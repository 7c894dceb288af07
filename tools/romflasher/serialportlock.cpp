#include "serialportlock.h"

#include <QFileInfo>

#include <utility>

namespace flasher {

namespace {
// QSerialPort's own list, in its order.
constexpr const char *lockFolders[] = {"/var/lock",       "/etc/locks", "/var/spool/locks",
                                       "/var/spool/uucp", "/tmp",       "/data/local/tmp"};
// As many as the kernel follows.
constexpr int maxLinks = 40;

QString describeFailure(const QLockFile &lock, const QString &path)
{
    qint64 pid = 0;
    QString host;
    QString program;
    if (lock.error() != QLockFile::LockFailedError)
        return QStringLiteral("the lock file %1 cannot be made").arg(path);
    if (!lock.getLockInfo(&pid, &host, &program))
        return QStringLiteral("the lock file %1 is somebody else's").arg(path);
    return QStringLiteral("the port is held by process %1 (%2), says %3")
        .arg(pid)
        .arg(program, path);
}
} // namespace

SerialPortLock::SerialPortLock(const QString &device)
{
    QFileInfo name(device);
    m_paths.append(pathOf(device));
    for (int links = 0; name.isSymLink() && links < maxLinks; ++links) {
        name.setFile(name.symLinkTarget());
        m_paths.append(pathOf(name.filePath()));
    }
    m_paths.removeDuplicates();
}

QString SerialPortLock::pathOf(const QString &device)
{
    const QString prefix = QStringLiteral("/dev/");
    QString name = device.startsWith(prefix) ? device.mid(prefix.size()) : device;
    name.replace(QLatin1Char('/'), QLatin1Char('_'));
    for (const char *folder : lockFolders) {
        const QFileInfo info{QLatin1String(folder)};
        QString path = info.filePath() + QStringLiteral("/LCK..") + name;
        if (info.isReadable() && (QFileInfo::exists(path) || info.isWritable()))
            return path;
    }
    return QString();
}

bool SerialPortLock::take(int timeoutMs)
{
    for (const QString &path : qAsConst(m_paths)) {
        if (path.isEmpty()) {
            m_problem = QStringLiteral("no folder for the port's lock file can be written");
            return false;
        }
        auto lock = std::make_unique<QLockFile>(path);
        // Only the death of its holder makes a lock stale: a flashing may take minutes.
        lock->setStaleLockTime(0);
        if (!lock->tryLock(timeoutMs)) {
            m_problem = describeFailure(*lock, path);
            return false;
        }
        m_locks.push_back(std::move(lock));
    }
    return true;
}

} // namespace flasher
