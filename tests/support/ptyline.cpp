#include "ptyline.h"

#include <QElapsedTimer>
#include <QSocketNotifier>
#include <QTimer>

#include <array>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <termios.h>
#include <unistd.h>

PtyLine::PtyLine(QObject *parent)
    : QObject(parent)
{
    // Answers have exact times, so the process needs a higher priority than parallel tests.
    ::setpriority(PRIO_PROCESS, 0, -10);
    m_notifier = new QSocketNotifier(m_pty.lineEnd(), QSocketNotifier::Read, this);
    connect(m_notifier, &QSocketNotifier::activated, this, [this] { onReadyRead(); });
}

PtyLine::~PtyLine()
{
    hangUp();
}

void PtyLine::queueAnswer(int requestLength, const QList<QByteArray> &answer, int delayMs)
{
    m_exchanges.append({requestLength, answer, delayMs});
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
    const ssize_t count = ::read(m_pty.lineEnd(), bytes.data(), bytes.size());
    if (count <= 0)
        return;
    m_received.append(bytes.data(), static_cast<int>(count));
    while (!m_exchanges.isEmpty() && m_received.size() >= m_exchanges.first().requestLength) {
        const Exchange exchange = m_exchanges.takeFirst();
        m_overlaps += m_piecesDue > 0 ? 1 : 0;
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
        if (dueMs == 0) {
            send(piece);
            continue;
        }
        ++m_piecesDue;
        QTimer::singleShot(dueMs, Qt::PreciseTimer, this, [this, piece] {
            --m_piecesDue;
            send(piece);
        });
    }
}

void PtyLine::send(const QByteArray &bytes)
{
    if (m_pty.lineEnd() >= 0 && ::write(m_pty.lineEnd(), bytes.constData(),
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
    ::ioctl(m_pty.portEnd(), FIONREAD, &count);
    return count;
}

void PtyLine::hangUp()
{
    m_notifier->setEnabled(false);
    m_pty.hangUp();
}

void PtyLine::setTransmissionStopped(bool stopped)
{
    ::tcflow(m_pty.portEnd(), stopped ? TCOOFF : TCOON);
}

termios PtyLine::settings() const
{
    termios settings{};
    ::tcgetattr(m_pty.portEnd(), &settings);
    return settings;
}
