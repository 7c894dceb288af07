#pragma once

#include "patternscanner.h"
#include "requestscanner.h"

#include <QByteArray>
#include <QList>
#include <QString>

/// Feeds RequestScanner and PatternScanner with the same packets and compares their results.
class ScannerDuel
{
public:
    /// Adds one packet, then takes at most `takes` requests. Returns false at the first difference
    /// and describes it in `what`. Compares nothing after the patterns have given up.
    bool feed(const QByteArray &packet, int takes, QString &what);

    /// Whether the patterns have given up.
    bool gaveUp() const { return m_patterns.gaveUp(); }
    /// Requests that were equal.
    int requests() const { return m_requests; }

private:
    bool takeOne(QString &what);
    bool isSameRest(QString &what);
    QString describe() const;

    RequestScanner m_scanner;
    PatternScanner m_patterns;
    QList<QByteArray> m_sent;
    int m_requests = 0;
    bool m_isEmpty = false;
};
