#include "ptyport.h"

#include "baudrates.h"
#include "failure.h"

#include <QFile>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

namespace sim {

namespace {
constexpr int bufferSize = 4096;
constexpr int maxPathLength = 64;

void closeFd(int *fd)
{
    if (*fd >= 0)
        ::close(*fd);
    *fd = -1;
}

/// Reports the system call that has just failed.
[[noreturn]] void fail(const char *what)
{
    throw Failure{QStringLiteral("%1: %2").arg(QLatin1String(what),
                                               QString::fromLocal8Bit(std::strerror(errno)))};
}
} // namespace

PtyPort::PtyPort(unsigned mode, QObject *parent)
    : QObject(parent)
    , m_mode(mode)
{
}

PtyPort::~PtyPort()
{
    close();
}

void PtyPort::open()
{
    if (isOpen())
        return;
    try {
        openNearEnd();
        makeRaw();
        watchOpening();
    } catch (const Failure &) {
        close();
        throw;
    }
}

void PtyPort::close()
{
    // This may run inside a signal of either notifier, so they are deleted later.
    for (auto *notifier : {&m_readable, &m_opened}) {
        if (!*notifier)
            continue;
        (*notifier)->setEnabled(false);
        notifier->release()->deleteLater();
    }
    closeFd(&m_watchFd);
    closeFd(&m_fd);
    m_path.clear();
}

int PtyPort::baudRate() const
{
    termios settings = {};
    if (::tcgetattr(m_fd, &settings) != 0)
        return 0;
    return baudRateOf(::cfgetospeed(&settings));
}

void PtyPort::write(const QByteArray &bytes)
{
    // While no master has the port open, the bytes would wait for the next master.
    if (!isOpen() || !m_readable->isEnabled())
        return;
    const ssize_t written = ::write(m_fd, bytes.constData(), static_cast<size_t>(bytes.size()));
    Q_UNUSED(written)
}

void PtyPort::openNearEnd()
{
    m_fd = ::posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0 || ::grantpt(m_fd) != 0 || ::unlockpt(m_fd) != 0)
        fail("no pseudo-terminal");
    std::array<char, maxPathLength> path = {};
    if (::ptsname_r(m_fd, path.data(), path.size()) != 0)
        fail("no name for the pseudo-terminal");
    m_path = QFile::decodeName(path.data());
    if (m_mode != 0 && ::chmod(path.data(), m_mode) != 0)
        fail("cannot set the mode of the port");
}

/// Both ends share their settings, which stay when the far end is closed.
void PtyPort::makeRaw()
{
    termios settings = {};
    if (::tcgetattr(m_fd, &settings) != 0)
        fail("cannot read the settings of the port");
    ::cfmakeraw(&settings);
    settings.c_cflag |= CLOCAL | CREAD;
    ::cfsetspeed(&settings, B9600);
    if (::tcsetattr(m_fd, TCSANOW, &settings) != 0)
        fail("cannot set the port to raw");
    m_readable = std::make_unique<QSocketNotifier>(m_fd, QSocketNotifier::Read);
    connect(m_readable.get(), &QSocketNotifier::activated, this, &PtyPort::onReadable);
}

/// While the far end is closed, the near end is always readable and each read fails. The file
/// system reports when the far end is opened again.
void PtyPort::watchOpening()
{
    m_watchFd = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (m_watchFd < 0)
        fail("cannot watch the port");
    if (::inotify_add_watch(m_watchFd, QFile::encodeName(m_path).constData(), IN_OPEN) < 0)
        fail("cannot watch the port");
    m_opened = std::make_unique<QSocketNotifier>(m_watchFd, QSocketNotifier::Read);
    connect(m_opened.get(), &QSocketNotifier::activated, this, &PtyPort::onOpened);
}

void PtyPort::onReadable()
{
    if (!readAll())
        onMasterLeft();
}

void PtyPort::onOpened()
{
    drainWatch();
    m_readable->setEnabled(true);
}

void PtyPort::onMasterLeft()
{
    m_readable->setEnabled(false);
    emit masterLeft();
    if (!isOpen())
        return;
    if (!resetFarEnd()) {
        emit stuck();
        return;
    }
    // The watch has also reported the opening by resetFarEnd(), so its reports are dropped. A read
    // then shows whether a master opened the port meanwhile. A later opening is reported again.
    drainWatch();
    m_readable->setEnabled(true);
    if (!readAll() && isOpen())
        m_readable->setEnabled(false);
}

/// Drops unread input and ends exclusive use, so that the next master finds a fresh port. Returns
/// false when exclusive use prevents that.
bool PtyPort::resetFarEnd()
{
    int fd =
        ::open(QFile::encodeName(m_path).constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return errno != EBUSY;
    ::ioctl(fd, TIOCNXCL);
    ::tcflush(fd, TCIFLUSH);
    closeFd(&fd);
    return true;
}

/// Reads everything that has arrived. Returns false when the far end is closed.
bool PtyPort::readAll()
{
    std::array<char, bufferSize> buffer = {};
    while (isOpen()) {
        const ssize_t count = ::read(m_fd, buffer.data(), buffer.size());
        if (count > 0) {
            const QByteArray bytes(buffer.data(), static_cast<int>(count));
            emit received(bytes, baudRate());
            continue;
        }
        return count < 0 && (errno == EAGAIN || errno == EINTR);
    }
    return true;
}

void PtyPort::drainWatch()
{
    alignas(inotify_event) std::array<char, bufferSize> buffer = {};
    while (::read(m_watchFd, buffer.data(), buffer.size()) > 0) {
    }
}

} // namespace sim
