#pragma once

#include <QString>

#include <optional>

namespace gripperctl {

/// The address of a daemon.
struct Endpoint
{
    static constexpr quint16 usualPort = 63352;

    QString host = QStringLiteral("127.0.0.1");
    quint16 port = usualPort;

    /// HOST:PORT, as on the command line; an IPv6 address is in brackets.
    QString text() const;

    /// Reads HOST, HOST:PORT, [IPV6] or [IPV6]:PORT. Empty for any other text.
    static std::optional<Endpoint> fromText(const QString &text);
};

} // namespace gripperctl
