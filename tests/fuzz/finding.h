#pragma once

#include <QByteArray>
#include <QString>

#include <cstdio>
#include <cstdlib>

/// Ends the program, so that the fuzzer keeps the input: `what` tells what should have been.
[[noreturn]] inline void reportFinding(const QString &what)
{
    std::fprintf(stderr, "FINDING: %s\n", qPrintable(what));
    std::abort();
}

/// Bytes in a form that can be printed.
inline QString readable(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toPercentEncoding(" !-_"));
}
