#pragma once

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QRegularExpression>

/// Reads the pairs of a SET with the pattern, as a reference for PairReader.
class PatternReader
{
public:
    /// Name, and the low byte of the value.
    using Pairs = QList<QPair<QByteArray, int>>;

    Pairs pairsOf(const QByteArray &request);

    /// Whether `line` is one SET request. False if the engine gives up.
    bool isRequest(const QByteArray &line);

    /// Whether the engine has given up on pairs. The pairs are then invalid.
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
