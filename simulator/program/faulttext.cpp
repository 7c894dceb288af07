#include "faulttext.h"

#include "failure.h"
#include "numbers.h"

#include <algorithm>
#include <climits>
#include <iterator>

namespace sim {

namespace {
struct KindRow
{
    const char *name;
    const char *meaning;
    FaultKind kind;
    int minValue; // minimum and maximum are 0 for a kind without VALUE
    int maxValue;
    int defaultValue;
};

constexpr KindRow kindRows[] = {
    {"deaf", "neither carries out nor answers the request", FaultKind::Deaf, 0, 0, 0},
    {"silent", "carries out the request and does not answer", FaultKind::Silent, 0, 0, 0},
    {"late", "answers VALUE ms late", FaultKind::Late, 1, 60000, 80},
    {"exception", "answers with exception VALUE instead of carrying out the request",
     FaultKind::Exception, 1, 255, 4},
    {"wrongId", "answers with slave id VALUE", FaultKind::WrongId, 0, 255, 250},
    {"wrongFunction", "answers with function code VALUE", FaultKind::WrongFunction, 0, 255, 4},
    {"badCrc", "answers with a wrong CRC (last byte inverted)", FaultKind::BadCrc, 0, 0, 0},
    {"truncated", "omits the last VALUE bytes of the answer", FaultKind::Truncated, 1, 255, 3},
    {"trailing", "sends VALUE random bytes after the answer", FaultKind::Trailing, 1, 255, 3},
    {"noise", "sends VALUE random bytes before the answer", FaultKind::Noise, 1, 255, 3},
    {"echo", "sends the request back before the answer", FaultKind::Echo, 0, 0, 0},
    {"silentBootloader", "carries out the request and does not answer", FaultKind::SilentBootloader,
     0, 0, 0},
    {"nackWrite", "refuses the block and does not write it", FaultKind::NackWrite, 0, 0, 0},
    {"badVerify", "stores the last byte of the block inverted", FaultKind::BadVerify, 0, 0, 0},
    {"refuseGo", "refuses to start the firmware", FaultKind::RefuseGo, 0, 0, 0},
    {"diesDuringWrite", "loses power after half of block VALUE, until a restart",
     FaultKind::DiesDuringWrite, 1, 65535, 3},
    {"doubleAck", "sends an answer of one byte twice", FaultKind::DoubleAck, 0, 0, 0},
};

constexpr int maxSharePercent = 100;

bool takesValue(const KindRow &row)
{
    return row.maxValue > 0;
}

const KindRow &rowOf(const QString &name)
{
    for (const KindRow &row : kindRows) {
        if (name.compare(QLatin1String(row.name), Qt::CaseInsensitive) == 0)
            return row;
    }
    throw Failure{QStringLiteral("unknown kind of fault \"%1\", see help").arg(name)};
}

/// The tests check that every kind has a row.
const KindRow &rowOf(FaultKind kind)
{
    return *std::find_if(std::begin(kindRows), std::end(kindRows),
                         [kind](const KindRow &row) { return row.kind == kind; });
}

void readHowOften(const QString &word, Fault *fault)
{
    if (word == QLatin1String("always"))
        return;
    const bool isShare = word.endsWith(QLatin1Char('%'));
    const std::optional<int> number =
        isShare ? parseNumber(word.chopped(1), 1, maxSharePercent) : parseNumber(word, 1, INT_MAX);
    if (!number)
        throw Failure{
            QStringLiteral("HOWOFTEN is a number of requests, a share such as 30%, or always")};
    (isShare ? fault->sharePercent : fault->remaining) = *number;
}

void readScope(const QString &word, Fault *fault)
{
    if (word == QLatin1String("reads")) {
        fault->scope = Fault::Scope::Reads;
        return;
    }
    if (word == QLatin1String("writes")) {
        fault->scope = Fault::Scope::Writes;
        return;
    }
    const std::optional<int> address = parseNumber(word, 0, 0xFFFF);
    if (!address)
        throw Failure{QStringLiteral("SCOPE is reads, writes or a register")};
    fault->scope = Fault::Scope::StartAddress;
    fault->address = static_cast<quint16>(*address);
}

/// Reads "on SCOPE" at the end of `words`, if present, and removes it.
void readScopeWords(QStringList *words, const KindRow &row, Fault *fault)
{
    if (words->size() < 2 || words->at(words->size() - 2) != QLatin1String("on"))
        return;
    if (isOfBootloader(row.kind))
        throw Failure{QStringLiteral("%1 takes no SCOPE").arg(QLatin1String(row.name))};
    readScope(words->takeLast(), fault);
    words->removeLast();
}

void readValue(const QString &word, const KindRow &row, Fault *fault)
{
    if (!takesValue(row))
        throw Failure{QStringLiteral("%1 takes no VALUE").arg(QLatin1String(row.name))};
    const std::optional<int> value = parseNumber(word, row.minValue, row.maxValue);
    if (!value)
        throw Failure{QStringLiteral("VALUE is %1 to %2").arg(row.minValue).arg(row.maxValue)};
    fault->value = *value;
}

QString scopeText(const Fault &fault)
{
    switch (fault.scope) {
    case Fault::Scope::AnyRequest:
        return QString();
    case Fault::Scope::Reads:
        return QStringLiteral(" on reads");
    case Fault::Scope::Writes:
        return QStringLiteral(" on writes");
    case Fault::Scope::StartAddress:
        return QStringLiteral(" on %1").arg(fault.address);
    }
    return QString();
}

QString howOftenText(const Fault &fault)
{
    if (fault.remaining != Fault::unlimited)
        return QString::number(fault.remaining);
    if (fault.sharePercent < maxSharePercent)
        return QStringLiteral("%1%").arg(fault.sharePercent);
    return QStringLiteral("always");
}
} // namespace

Fault parseFault(QStringList words)
{
    const KindRow &row = rowOf(words.isEmpty() ? QString() : words.takeFirst());
    Fault fault;
    fault.kind = row.kind;
    fault.value = row.defaultValue;
    readScopeWords(&words, row, &fault);
    if (words.size() > 2)
        throw Failure{QStringLiteral("too many words for a fault")};
    if (!words.isEmpty())
        readHowOften(words.first(), &fault);
    if (words.size() == 2)
        readValue(words.last(), row, &fault);
    return fault;
}

QString faultText(const Fault &fault)
{
    const KindRow &row = rowOf(fault.kind);
    QString text = QStringLiteral("%1 %2").arg(QLatin1String(row.name), howOftenText(fault));
    if (takesValue(row))
        text += QStringLiteral(" %1").arg(fault.value);
    return text + scopeText(fault);
}

QStringList faultHelp()
{
    QStringList lines;
    for (const KindRow &row : kindRows) {
        QString line = QStringLiteral("  %1 %2")
                           .arg(QLatin1String(row.name), -16)
                           .arg(QLatin1String(row.meaning));
        if (takesValue(row)) {
            line += QStringLiteral(" (%1 to %2, default %3)")
                        .arg(row.minValue)
                        .arg(row.maxValue)
                        .arg(row.defaultValue);
        }
        lines.append(line);
    }
    return lines;
}

} // namespace sim
