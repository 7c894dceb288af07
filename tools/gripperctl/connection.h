#pragma once

#include "endpoint.h"
#include "protocol.h"

#include <QTcpSocket>

#include <functional>

namespace gripperctl {

/// Owns one connection to the daemon. Each call sends a request and blocks until its reply arrives.
/// Every call may throw Failure: connection lost, time-out, interruption. A time-out closes the
/// connection, because a late reply would look like the reply to the next request.
class Connection
{
public:
    /// The way to wait for a reply.
    struct Wait
    {
        int timeoutMs;
        bool isInterruptible = true;
        /// Called about every 50 ms with the time since the request.
        std::function<void(qint64 elapsedMs)> onWaiting = {};
    };

    /// Connects; no interruption ends this early. `wait` applies to the requests that give none.
    Connection(const Endpoint &endpoint, const Wait &wait);

    QString get(const QString &name);
    QString get(const QString &name, const Wait &wait);

    /// Sends all names in one packet. The daemon answers up to 32 names from one state, unless the
    /// network splits the packet. A name that is given twice has one value.
    Values get(const QStringList &names);
    Values get(const QStringList &names, const Wait &wait);

    /// Sends pairs such as "POS 120 GTO 1". Returns whether the daemon acknowledged them.
    bool set(const QString &pairs);
    bool set(const QString &pairs, const Wait &wait);

    /// Addresses this gripper from now on. Returns false if the daemon has not found it.
    bool select(int slaveId);

    /// The ids of the grippers that the daemon has found.
    QVector<int> grippers();

private:
    void send(const QString &text);
    void waitFor(const std::function<bool()> &isThere, const QString &request, const Wait &wait);
    void waitSlice(const QString &request);
    QByteArray readLine(const QString &request, const Wait &wait);
    [[noreturn]] void failByForeignReply(const QByteArray &reply) const;

    Endpoint m_endpoint;
    Wait m_wait;
    QTcpSocket m_socket;
};

} // namespace gripperctl
