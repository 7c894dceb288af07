#pragma once

#include "patternscanner.h"
#include "requestscanner.h"

#include <QByteArray>
#include <QList>
#include <QString>

/// Feeds RequestScanner and PatternScanner with the same packets and compares their results.
class ScannerComparison
{
public:
    /// Adds one packet, then takes at most `takes` requests. Returns false at the first difference
    /// and describes it in `difference`. Compares nothing after the patterns have given up.
    bool feed(const QByteArray &packet, int takes, QString &difference);

    /// Whether the patterns have given up.
    bool gaveUp() const { return m_patterns.gaveUp(); }
    /// The number of equal requests so far.
    int equalRequests() const { return m_equalRequests; }

private:
    bool takeOne(QString &difference);
    bool hasSameRest(QString &difference);
    QString describePackets() const;

    RequestScanner m_scanner;
    PatternScanner m_patterns;
    QList<QByteArray> m_sent;
    int m_equalRequests = 0;
    bool m_isEmpty = false;
};
