#include "connection.h"

#include "failure.h"
#include "interruption.h"

#include <QElapsedTimer>

#include <algorithm>

namespace gripperctl {

namespace {

constexpr int sliceMs = 50;
constexpr int maxConnectMs = 5000;
constexpr int acknowledgeLength = 3;
// Longer than any reply of the daemon. A peer that sends more without a line end is not the daemon.
constexpr int maxReplyLength = 4096;

QString connectProblem(const Endpoint &endpoint, const QTcpSocket &socket)
{
    switch (socket.error()) {
    case QAbstractSocket::ConnectionRefusedError:
        return QStringLiteral(
                   "nothing listens on %1: is gripperd running? See systemctl status gripperd")
            .arg(endpoint.text());
    case QAbstractSocket::HostNotFoundError:
        return QStringLiteral("there is no host \"%1\": check --host").arg(endpoint.host);
    default:
        return QStringLiteral("cannot connect to %1 (%2): check --host and the network")
            .arg(endpoint.text(), socket.errorString());
    }
}

} // namespace

Connection::Connection(const Endpoint &endpoint, const Wait &wait)
    : m_endpoint(endpoint)
    , m_wait(wait)
{
    m_socket.connectToHost(m_endpoint.host, m_endpoint.port);
    if (!m_socket.waitForConnected(std::min(wait.timeoutMs, maxConnectMs)))
        throw Failure{ExitCode::NoConnection, connectProblem(m_endpoint, m_socket)};
    m_socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
}

QString Connection::get(const QString &name)
{
    return get(name, m_wait);
}

QString Connection::get(const QString &name, const Wait &wait)
{
    return get(QStringList{name}, wait).value(name.toUpper());
}

Values Connection::get(const QStringList &names)
{
    return get(names, m_wait);
}

Values Connection::get(const QStringList &names, const Wait &wait)
{
    const QString request = QStringLiteral("GET ") + names.join(QStringLiteral("\nGET "));
    send(request);
    Values values;
    for (int replies = 0; replies < names.size(); ++replies) {
        const QByteArray line = readLine(request, wait);
        const auto reply = parseReply(QString::fromUtf8(line));
        // A reply that had to wait for the bus comes after later ones. Only its name identifies it.
        if (!reply || !names.contains(reply->name, Qt::CaseInsensitive))
            failByForeignReply(line);
        values.insert(reply->name, reply->value);
    }
    return values;
}

bool Connection::set(const QString &pairs)
{
    return set(pairs, m_wait);
}

bool Connection::set(const QString &pairs, const Wait &wait)
{
    const QString request = QStringLiteral("SET ") + pairs;
    send(request);
    waitFor([this] { return m_socket.bytesAvailable() >= acknowledgeLength; }, request, wait);
    const QByteArray reply = m_socket.read(acknowledgeLength);
    if (reply != "ack" && reply != "nak")
        failByForeignReply(reply);
    return reply == "ack";
}

bool Connection::select(int slaveId)
{
    return set(QStringLiteral("SID %1").arg(slaveId));
}

QVector<int> Connection::grippers()
{
    const QString value = get(QStringLiteral("SID"));
    const auto ids = parseIds(value);
    if (!ids)
        failByForeignReply(value.toUtf8());
    return *ids;
}

void Connection::send(const QString &text)
{
    m_socket.write(text.toUtf8() + '\n');
    m_socket.flush();
}

QByteArray Connection::readLine(const QString &request, const Wait &wait)
{
    waitFor([this] { return m_socket.canReadLine() || m_socket.bytesAvailable() > maxReplyLength; },
            request, wait);
    QByteArray line = m_socket.readLine();
    if (line.endsWith('\n'))
        line.chop(1);
    return line;
}

void Connection::waitFor(const std::function<bool()> &isThere, const QString &request,
                         const Wait &wait)
{
    QElapsedTimer timer;
    timer.start();
    while (!isThere()) {
        if (wait.isInterruptible)
            throwIfInterrupted();
        if (timer.elapsed() > wait.timeoutMs) {
            m_socket.abort();
            throw Failure{
                ExitCode::TimedOut,
                QStringLiteral("no answer to \"%1\" within %2 s: gripperd may be busy with "
                               "the bus; try again, or use a longer --timeout")
                    .arg(request.section(QLatin1Char('\n'), 0, 0))
                    .arg(wait.timeoutMs / 1000.0)};
        }
        waitSlice(request);
        if (wait.onWaiting)
            wait.onWaiting(timer.elapsed());
    }
}

void Connection::waitSlice(const QString &request)
{
    if (m_socket.waitForReadyRead(sliceMs) || m_socket.state() == QAbstractSocket::ConnectedState)
        return;
    throw Failure{
        ExitCode::NoConnection,
        QStringLiteral("lost the connection to %1 while waiting for the answer to \"%2\": "
                       "has gripperd ended? See systemctl status gripperd")
            .arg(m_endpoint.text(), request.section(QLatin1Char('\n'), 0, 0))};
}

void Connection::failByForeignReply(const QByteArray &reply) const
{
    const QString shown = QString::fromLatin1(reply.left(40).toPercentEncoding(" []?"));
    throw Failure{ExitCode::NoConnection,
                  QStringLiteral("the server on %1 does not answer like gripperd (\"%2\"): check "
                                 "--host")
                      .arg(m_endpoint.text(), shown)};
}

} // namespace gripperctl
