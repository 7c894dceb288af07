// Compares the requests that RequestScanner finds, and the pairs of every SET, with those of the
// patterns.
//
// Input: the bytes of a client. Byte FD or FE ends a read; UTF-8 contains neither. After FD the
// target takes one request before the next read, after FE all of them.

#include "finding.h"
#include "pairreader.h"
#include "patternreader.h"
#include "requestscanner.h"
#include "scannercomparison.h"

#include <QList>

#include <climits>
#include <cstddef>
#include <cstdint>

namespace {

constexpr char readEndTakingOne = '\xFD';
constexpr char readEndTakingAll = '\xFE';

struct Read
{
    QByteArray bytes;
    int takes;
};

QList<Read> readsOf(const QByteArray &input)
{
    QList<Read> reads;
    QByteArray bytes;
    for (const char c : input) {
        if (c != readEndTakingOne && c != readEndTakingAll) {
            bytes.append(c);
            continue;
        }
        reads.append({bytes, c == readEndTakingOne ? 1 : INT_MAX});
        bytes.clear();
    }
    reads.append({bytes, INT_MAX});
    return reads;
}

void compareCuts(const QList<Read> &reads)
{
    ScannerComparison comparison;
    QString difference;
    for (const Read &read : reads) {
        if (!comparison.feed(read.bytes, read.takes, difference))
            reportFinding(difference);
        if (comparison.gaveUp())
            return;
    }
}

void comparePairs(const std::string &set)
{
    const QByteArray text = QByteArray::fromStdString(set);
    PatternReader patterns;
    const PatternReader::Pairs expected = patterns.pairsOf(text);
    if (patterns.gaveUp())
        return;
    PatternReader::Pairs pairs;
    PairReader reader(set);
    PairReader::Pair pair;
    while (reader.next(pair))
        pairs.append({{pair.name.data(), static_cast<int>(pair.name.size())}, pair.value});
    if (pairs != expected)
        reportFinding(QStringLiteral("pairs of ") + readable(text));
}

// Also scans text that is too ambiguous for the patterns.
void scanAlone(const QList<Read> &reads)
{
    RequestScanner scanner;
    Request request;
    std::size_t sent = 0;
    for (const Read &read : reads) {
        scanner.append(read.bytes.constData(), static_cast<std::size_t>(read.bytes.size()));
        sent += static_cast<std::size_t>(read.bytes.size());
        for (int takes = read.takes; takes > 0 && scanner.takeNext(request); --takes) {
            if (request.kind == Request::Kind::Set)
                comparePairs(request.text);
        }
        // Upper-casing turns two bytes into at most three characters.
        if (scanner.bytesKept() > 2 * sent)
            reportFinding(QStringLiteral("the scanner keeps more than it received"));
    }
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const QByteArray input(reinterpret_cast<const char *>(data), static_cast<int>(size));
    const QList<Read> reads = readsOf(input);
    compareCuts(reads);
    scanAlone(reads);
    return 0;
}
