// Checks that the time for scanning repetitive text and reading its pairs is proportional to the
// length of the text. Otherwise the target exceeds the fuzzer's time limit.
//
// Input: the size of the reads (one byte; 0 for a single read), then up to three parts. Byte FE
// separates them. They are the start, the repeated part and the end of the text.

#include "finding.h"
#include "pairreader.h"
#include "requestscanner.h"

#include <QList>

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace {

constexpr char partEnd = '\xFE';
constexpr int repeatedSize = 256 * 1024;

QByteArray expanded(const QByteArray &parts)
{
    QList<QByteArray> list = parts.split(partEnd);
    while (list.size() < 3)
        list.append(QByteArray());
    const int times = repeatedSize / std::max(1, list[1].size());
    return list[0] + list[1].repeated(times) + list[2];
}

void takeAll(RequestScanner &scanner)
{
    Request request;
    while (scanner.takeNext(request)) {
        if (request.kind != Request::Kind::Set)
            continue;
        PairReader reader(request.text);
        PairReader::Pair pair;
        while (reader.next(pair))
            continue;
    }
}

} // namespace

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size < 2)
        return 0;
    const QByteArray text =
        expanded({reinterpret_cast<const char *>(data) + 1, static_cast<int>(size) - 1});
    const int readSize = data[0] == 0 ? text.size() : data[0];
    RequestScanner scanner;
    for (int at = 0; at < text.size(); at += readSize) {
        const QByteArray read = text.mid(at, readSize);
        scanner.append(read.constData(), static_cast<std::size_t>(read.size()));
        takeAll(scanner);
    }
    // Upper-casing turns two bytes into at most three characters.
    if (scanner.bytesKept() > 2 * static_cast<std::size_t>(text.size()))
        reportFinding(QStringLiteral("the scanner keeps more than it received"));
    return 0;
}
