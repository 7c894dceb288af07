#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QRegularExpression>

/// Reads the pairs of a SET with the pattern itself: the procedure that PairReader stands for.
class PatternReader
{
public:
    /// Name, and the low byte of the value.
    using Pairs = QList<QPair<QByteArray, int>>;

    Pairs pairsOf(const QByteArray &request);

    /// Whether this is a whole SET request. A line on which the engine gives up is none.
    bool isRequest(const QByteArray &line);

    /// Whether the engine has given up on pairs, so that those are worth nothing.
    bool gaveUp() const { return m_gaveUp; }
    int linesGivenUp() const { return m_linesGivenUp; }

private:
    QRegularExpression m_set{
        QStringLiteral("SET([ ]+([\\w_]{3,9})([ ]+[-\\d]{1,3})?)+[ ]*(?<return>[\\r\\n]+)"),
        QRegularExpression::CaseInsensitiveOption};
    QRegularExpression m_pair{
        QStringLiteral("[ ]+(?<variable>[\\w_]{3,9})([ ]+(?<value>[-\\d]{1,3}))?"),
        QRegularExpression::CaseInsensitiveOption};
    bool m_gaveUp = false;
    int m_linesGivenUp = 0;
};
