#include "serialdevice.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace flasher {

namespace {
// The Unix98 majors of the kernel's list of devices.
constexpr unsigned firstPtySlaveMajor = 136;
constexpr unsigned lastPtySlaveMajor = 143;
} // namespace

bool isPseudoTerminalSlave(dev_t device)
{
    return major(device) >= firstPtySlaveMajor && major(device) <= lastPtySlaveMajor;
}

QString serialModeOf(const QString &path, QString *problem)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) {
        *problem = QStringLiteral("the port %1 cannot be used: %2")
                       .arg(path, QString::fromLocal8Bit(std::strerror(errno)));
        return QString();
    }
    if (!S_ISCHR(status.st_mode)) {
        *problem = QStringLiteral("the port %1 is no serial device").arg(path);
        return QString();
    }
    return isPseudoTerminalSlave(status.st_rdev) ? QStringLiteral("8n1") : QStringLiteral("8e1");
}

} // namespace flasher
