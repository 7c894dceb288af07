#pragma once

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstdlib>

/// Prints `what` and aborts, so the fuzzer keeps the input.
[[noreturn]] inline void reportFinding(const QString &what)
{
    std::fprintf(stderr, "FINDING: %s\n", qPrintable(what));
    std::abort();
}

/// Returns the bytes in a printable form.
inline QString readable(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toPercentEncoding(" !-_"));
}
