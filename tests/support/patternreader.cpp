#include "patternreader.h"

PatternReader::Pairs PatternReader::pairsOf(const QByteArray &request)
{
    QString text = QString::fromLatin1(request);
    text.remove(QChar(3));
    Pairs pairs;
    QRegularExpressionMatch match = m_pair.match(text);
    for (; match.hasMatch(); match = m_pair.match(text)) {
        const int value = match.captured(QStringLiteral("value")).toInt();
        pairs.append(
            {match.captured(QStringLiteral("variable")).toLatin1(), static_cast<quint8>(value)});
        text.remove(match.capturedStart(), match.capturedLength());
    }
    m_gaveUp = m_gaveUp || !match.isValid();
    return pairs;
}

bool PatternReader::isRequest(const QByteArray &line)
{
    const QRegularExpressionMatch match = m_set.match(QString::fromLatin1(line));
    m_linesGivenUp += match.isValid() ? 0 : 1;
    return match.hasMatch() && match.capturedLength() == line.size();
}
