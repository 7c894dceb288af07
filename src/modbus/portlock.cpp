#include "portlock.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QLockFile>

namespace {

// The folders that QSerialPort tries, in its order.
constexpr const char *lockFolders[] = {"/var/lock",       "/etc/locks", "/var/spool/locks",
                                       "/var/spool/uucp", "/tmp",       "/data/local/tmp"};

/// The file that QSerialPort locks when it opens the port. Empty if there is no folder for the
/// file.
QString lockFileOf(QString portName)
{
    portName.replace(QLatin1Char('/'), QLatin1Char('_'));
    for (const char *const name : lockFolders) {
        const QFileInfo folder{QLatin1String(name)};
        QString path = folder.filePath() + QLatin1String("/LCK..") + portName;
        if (folder.isReadable() && (QFileInfo::exists(path) || folder.isWritable()))
            return path;
    }
    return {};
}

} // namespace

void removeStaleLockOfOwnProcess(const QString &portName)
{
    QLockFile lock(lockFileOf(portName));
    qint64 holder = 0;
    QString host;
    QString program;
    if (!lock.getLockInfo(&holder, &host, &program) || holder != QCoreApplication::applicationPid())
        return;
    // Keeps the file if a process holds the kernel's lock on it, even in another container.
    lock.removeStaleLockFile();
}
