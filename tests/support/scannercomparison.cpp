#include "scannercomparison.h"

#include <QStringList>

#include <string_view>

namespace {

QByteArray bytes(std::string_view text)
{
    return {text.data(), static_cast<int>(text.size())};
}

bool isSame(const Request &request, const PatternScanner::Cut &cut)
{
    const bool isGet = request.kind == Request::Kind::Get;
    return isGet == cut.isGet && bytes(request.text) == cut.text.toUtf8() &&
           bytes(request.variable()) == cut.variable.toUtf8() &&
           request.hasLineEnding == cut.hasLineEnding;
}

} // namespace

bool ScannerComparison::feed(const QByteArray &packet, int takes, QString &difference)
{
    m_sent.append(packet);
    m_scanner.append(packet.constData(), static_cast<std::size_t>(packet.size()));
    m_patterns.append(packet);
    while (takes-- > 0) {
        if (!takeOne(difference))
            return false;
        if (m_patterns.gaveUp())
            return true;
        if (m_isEmpty)
            return hasSameRest(difference);
    }
    return true;
}

bool ScannerComparison::takeOne(QString &difference)
{
    Request request;
    PatternScanner::Cut cut;
    const bool expected = m_patterns.takeNext(cut);
    if (m_patterns.gaveUp())
        return true;
    m_isEmpty = !expected;
    m_equalRequests += expected ? 1 : 0;
    const bool taken = m_scanner.takeNext(request);
    if (taken == expected && (!taken || isSame(request, cut)))
        return true;
    difference = describePackets() +
                 (taken ? QString::fromStdString(request.text) : QStringLiteral("nothing")) +
                 QStringLiteral(" instead of ") + (expected ? cut.text : QStringLiteral("nothing"));
    return false;
}

bool ScannerComparison::hasSameRest(QString &difference)
{
    const int expected = m_patterns.lengthThatMayMatter();
    if (m_patterns.gaveUp() || m_scanner.bytesKept() == static_cast<std::size_t>(expected))
        return true;
    difference =
        describePackets() +
        QStringLiteral("%1 bytes kept, %2 matter").arg(m_scanner.bytesKept()).arg(expected);
    return false;
}

QString ScannerComparison::describePackets() const
{
    QStringList packets;
    for (const QByteArray &packet : m_sent)
        packets.append(QString::fromLatin1(packet.toPercentEncoding(" !-_")));
    return packets.join(QStringLiteral(" | ")) + QStringLiteral(" : ");
}
