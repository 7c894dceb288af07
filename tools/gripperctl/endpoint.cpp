#include "endpoint.h"

#include <QRegularExpression>

namespace gripperctl {

QString Endpoint::text() const
{
    const bool isIpv6 = host.contains(QLatin1Char(':'));
    const QString written = isIpv6 ? QStringLiteral("[%1]").arg(host) : host;
    return QStringLiteral("%1:%2").arg(written).arg(port);
}

std::optional<Endpoint> Endpoint::fromText(const QString &text)
{
    static const QRegularExpression form(
        QStringLiteral(R"(\A(?:\[(?<ipv6>[0-9A-Fa-f:.]+(?:%[^\[\]\s]+)?)\]|(?<host>[^:\[\]\s]+)))"
                       R"((?::(?<port>\d+))?\z)"));
    const QRegularExpressionMatch match = form.match(text);
    if (!match.hasMatch())
        return std::nullopt;
    Endpoint endpoint;
    endpoint.host = match.captured(QStringLiteral("ipv6")) + match.captured(QStringLiteral("host"));
    const QString port = match.captured(QStringLiteral("port"));
    if (port.isEmpty())
        return endpoint;
    bool isNumber = false;
    endpoint.port = port.toUShort(&isNumber);
    if (!isNumber || endpoint.port == 0)
        return std::nullopt;
    return endpoint;
}

} // namespace gripperctl
