#include "ptyline.h"

#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QTimer>

#include <array>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

PtyLine::PtyLine(QObject *parent)
    : QObject(parent)
{
    // Answers are timed: where this process may, it goes in front of the tests beside it.
    ::setpriority(PRIO_PROCESS, 0, -10);
    termios raw{};
    ::cfmakeraw(&raw);
    std::array<char, 64> name{};
    if (::openpty(&m_lineEnd, &m_portEnd, name.data(), &raw, nullptr) != 0)
        qFatal("no pseudo-terminal to be had");
    m_portName = QString::fromLatin1(name.data());
    m_notifier = new QSocketNotifier(m_lineEnd, QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] { onReadyRead(); });
}

PtyLine::~PtyLine()
{
    hangUp();
    ::close(m_portEnd);
}

void PtyLine::script(int requestLength, const QList<QByteArray> &answer, int delayMs)
{
    m_script.append({requestLength, answer, delayMs});
}

QList<QByteArray> PtyLine::requests() const
{
    QList<QByteArray> all = m_requests;
    if (!m_received.isEmpty())
        all.append(m_received);
    return all;
}

void PtyLine::onReadyRead()
{
    std::array<char, 4096> bytes{};
    const ssize_t count = ::read(m_lineEnd, bytes.data(), bytes.size());
    if (count <= 0)
        return;
    m_received.append(bytes.data(), static_cast<int>(count));
    while (!m_script.isEmpty() && m_received.size() >= m_script.first().requestLength) {
        const Exchange exchange = m_script.takeFirst();
        m_requests.append(m_received.left(exchange.requestLength));
        m_received.remove(0, exchange.requestLength);
        sendPieces(exchange.answer, exchange.delayMs);
    }
}

void PtyLine::sendPieces(const QList<QByteArray> &pieces, int delayMs)
{
    int dueMs = 0;
    for (const QByteArray &piece : pieces) {
        dueMs += delayMs;
        if (dueMs == 0)
            send(piece);
        else
            QTimer::singleShot(dueMs, Qt::PreciseTimer, this, [this, piece] { send(piece); });
    }
}

void PtyLine::send(const QByteArray &bytes)
{
    if (m_lineEnd >= 0 && ::write(m_lineEnd, bytes.constData(),
                                  static_cast<std::size_t>(bytes.size())) != bytes.size())
        qFatal("the line does not take the bytes");
}

bool PtyLine::blockUntilUnread(int count) const
{
    QElapsedTimer clock;
    clock.start();
    while (unreadCount() < count && !clock.hasExpired(1000))
        ::usleep(1000);
    return unreadCount() >= count;
}

int PtyLine::unreadCount() const
{
    int count = 0;
    ::ioctl(m_portEnd, FIONREAD, &count);
    return count;
}

void PtyLine::hangUp()
{
    if (m_lineEnd < 0)
        return;
    m_notifier->setEnabled(false);
    ::close(m_lineEnd);
    m_lineEnd = -1;
}

void PtyLine::setTransmissionStopped(bool stopped)
{
    ::tcflow(m_portEnd, stopped ? TCOOFF : TCOON);
}

termios PtyLine::settings() const
{
    termios settings{};
    ::tcgetattr(m_portEnd, &settings);
    return settings;
}
