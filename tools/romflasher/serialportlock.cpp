#include "serialportlock.h"

#include "failure.h"

#include <QFileInfo>

#include <utility>

namespace flasher {

namespace {

// The folders that QSerialPort tries, in the same order.
constexpr const char *lockFolders[] = {"/var/lock",       "/etc/locks", "/var/spool/locks",
                                       "/var/spool/uucp", "/tmp",       "/data/local/tmp"};
// The kernel follows at most this many links.
constexpr int maxLinks = 40;

[[noreturn]] void fail(const QString &problem)
{
    throw Failure{ExitCode::PortFailed, problem};
}

[[noreturn]] void failUnlocked(const QLockFile &lock, const QString &path)
{
    qint64 pid = 0;
    QString host;
    QString program;
    if (lock.error() != QLockFile::LockFailedError)
        fail(QStringLiteral("the lock file %1 cannot be created").arg(path));
    if (!lock.getLockInfo(&pid, &host, &program))
        fail(QStringLiteral("the lock file %1 belongs to an unknown process").arg(path));
    fail(QStringLiteral("process %1 (%2) has the port, according to %3")
             .arg(pid)
             .arg(program, path));
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

void SerialPortLock::take(int timeoutMs)
{
    for (const QString &path : qAsConst(m_paths)) {
        if (path.isEmpty())
            fail(QStringLiteral("no folder for the lock file of the port is writable"));
        auto lock = std::make_unique<QLockFile>(path);
        // Only the death of its owner makes a lock stale: flashing may take minutes.
        lock->setStaleLockTime(0);
        if (!lock->tryLock(timeoutMs))
            failUnlocked(*lock, path);
        m_locks.push_back(std::move(lock));
    }
}

} // namespace flasher
