#include "patternscanner.h"

#include <QRegularExpression>

namespace {

const QString getPattern = QStringLiteral("GET (?<variable>[\\w_]{3})[ ]*(?<return>[\\r\\n])*");
const QString setPattern =
    QStringLiteral("SET([ ]+([\\w_]{3,9})([ ]+[-\\d]{1,3})?)+[ ]*(?<return>[\\r\\n]+)");

const QRegularExpression &getRegex()
{
    static const QRegularExpression regex(getPattern, QRegularExpression::CaseInsensitiveOption);
    return regex;
}

const QRegularExpression &setRegex()
{
    static const QRegularExpression regex(setPattern, QRegularExpression::CaseInsensitiveOption);
    return regex;
}

} // namespace

void PatternScanner::append(const QByteArray &packet)
{
    m_buffer += QString::fromUtf8(packet.constData()).toUpper(); // ends at the first zero
}

bool PatternScanner::takeNext(Cut &cut)
{
    const QRegularExpressionMatch set = setRegex().match(m_buffer);
    const QRegularExpressionMatch get = getRegex().match(m_buffer);
    if (!set.isValid() || !get.isValid()) {
        m_gaveUp = true;
        return false;
    }
    if (!set.hasMatch() && !get.hasMatch())
        return false;
    const bool isGet =
        !set.hasMatch() || (get.hasMatch() && get.capturedStart() < set.capturedStart());
    const QRegularExpressionMatch &first = isGet ? get : set;
    cut = {isGet, first.captured(), isGet ? get.captured(QStringLiteral("variable")) : QString(),
           !first.captured(QStringLiteral("return")).isEmpty()};
    m_buffer.remove(0, first.capturedEnd());
    return true;
}

int PatternScanner::lengthThatMayMatter()
{
    const auto partial = QRegularExpression::PartialPreferCompleteMatch;
    int start = m_buffer.size();
    for (const QRegularExpression &pattern : {setRegex(), getRegex()}) {
        const QRegularExpressionMatch match = pattern.match(m_buffer, 0, partial);
        m_gaveUp = m_gaveUp || !match.isValid();
        if (match.hasPartialMatch())
            start = qMin(start, match.capturedStart());
    }
    return m_buffer.size() - start;
}
