#include "serialdevice.h"

#include "failure.h"

#include <QFile>

#include <cerrno>

#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace flasher {

namespace {

// The Unix98 pseudo-terminals in the device list of the kernel.
constexpr unsigned firstPtySlaveMajor = 136;
constexpr unsigned lastPtySlaveMajor = 143;

} // namespace

bool isPseudoTerminalSlave(dev_t device)
{
    return major(device) >= firstPtySlaveMajor && major(device) <= lastPtySlaveMajor;
}

QString serialModeOf(const QString &path)
{
    struct stat status = {};
    if (::stat(QFile::encodeName(path).constData(), &status) != 0) {
        throw Failure{
            ExitCode::PortFailed,
            QStringLiteral("the port %1 cannot be used: %2").arg(path, qt_error_string(errno))};
    }
    if (!S_ISCHR(status.st_mode)) {
        throw Failure{ExitCode::PortFailed,
                      QStringLiteral("the port %1 is not a serial device").arg(path)};
    }
    return isPseudoTerminalSlave(status.st_rdev) ? QStringLiteral("8n1") : QStringLiteral("8e1");
}

} // namespace flasher
