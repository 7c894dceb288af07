#pragma once

#include <QString>

#include <optional>

namespace gripperctl {

/// Where a daemon listens.
struct Endpoint
{
    static constexpr quint16 usualPort = 63352;

    QString host = QStringLiteral("127.0.0.1");
    quint16 port = usualPort;

    /// As it is written on the command line; an IPv6 address stands in brackets.
    QString text() const;

    /// HOST, HOST:PORT, [IPV6] or [IPV6]:PORT; nothing if it is none of these.
    static std::optional<Endpoint> fromText(const QString &text);
};

} // namespace gripperctl
