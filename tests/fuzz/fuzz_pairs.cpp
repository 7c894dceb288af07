// Compares the pairs that PairReader finds in any text with those of the pattern.
//
// Input: the text up to the first zero byte, which no request contains.

#include "finding.h"
#include "pairreader.h"
#include "patternreader.h"

#include <cstddef>
#include <cstdint>
#include <cstring>

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const auto *begin = reinterpret_cast<const char *>(data);
    const QByteArray text(begin, static_cast<int>(::strnlen(begin, size)));
    PatternReader patterns;
    const PatternReader::Pairs expected = patterns.pairsOf(text);
    PatternReader::Pairs pairs;
    PairReader reader({text.constData(), static_cast<std::size_t>(text.size())});
    PairReader::Pair pair;
    while (reader.next(pair))
        pairs.append({{pair.name.data(), static_cast<int>(pair.name.size())}, pair.value});
    if (!patterns.gaveUp() && pairs != expected)
        reportFinding(QStringLiteral("pairs of ") + readable(text));
    return 0;
}
