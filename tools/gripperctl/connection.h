#pragma once

#include "endpoint.h"
#include "protocol.h"

#include <QTcpSocket>

#include <functional>

namespace gripperctl {

/// One connection to the daemon: a request, then its reply, each in a call that waits for it.
/// Every call may throw a Failure: connection lost, no answer in time, interrupted. After a
/// time-out the connection is closed, since a late reply would be taken for that to the next
/// request.
class Connection
{
public:
    /// How a reply is waited for.
    struct Wait
    {
        int timeoutMs;
        bool isInterruptible = true;
        /// Called every 50 ms with the time since the request.
        std::function<void(qint64 elapsedMs)> onWaiting = {};
    };

    /// Connects, which no interruption ends early. `wait` is for every request that brings none.
    Connection(const Endpoint &endpoint, const Wait &wait);

    QString get(const QString &name);
    QString get(const QString &name, const Wait &wait);

    /// All in one packet, so that they come from one state of the daemon. A name that is asked for
    /// twice has one value.
    Values get(const QStringList &names);
    Values get(const QStringList &names, const Wait &wait);

    /// Whether the pairs, such as "POS 120 GTO 1", were acknowledged.
    bool set(const QString &pairs);
    bool set(const QString &pairs, const Wait &wait);

    /// Addresses that gripper from now on; false if the daemon has not found it.
    bool select(int slaveId);

    /// The ids of the grippers that the daemon has found.
    QVector<int> grippers();

private:
    void send(const QString &text);
    void waitFor(const std::function<bool()> &isThere, const QString &request, const Wait &wait);
    void waitSlice(const QString &request);
    QByteArray readLine(const QString &request, const Wait &wait);
    [[noreturn]] void failBecauseForeign(const QByteArray &reply) const;

    Endpoint m_endpoint;
    Wait m_wait;
    QTcpSocket m_socket;
};

} // namespace gripperctl
