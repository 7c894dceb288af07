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
    {"deaf", "request not heard: not carried out, not answered", FaultKind::Deaf, 0, 0, 0},
    {"silent", "request carried out, not answered", FaultKind::Silent, 0, 0, 0},
    {"late", "answer VALUE ms late", FaultKind::Late, 1, 60000, 80},
    {"exception", "exception answer VALUE, not carried out", FaultKind::Exception, 1, 255, 4},
    {"wrongId", "answer under slave id VALUE", FaultKind::WrongId, 0, 255, 250},
    {"wrongFunction", "answer with function code VALUE", FaultKind::WrongFunction, 0, 255, 4},
    {"badCrc", "answer with a wrong CRC", FaultKind::BadCrc, 0, 0, 0},
    {"truncated", "the last VALUE bytes of the answer missing", FaultKind::Truncated, 1, 255, 3},
    {"trailing", "VALUE random bytes behind the answer", FaultKind::Trailing, 1, 255, 3},
    {"noise", "VALUE random bytes before the answer", FaultKind::Noise, 1, 255, 3},
    {"echo", "the request before the answer", FaultKind::Echo, 0, 0, 0},
    {"silentBootloader", "answer of the bootloader missing", FaultKind::SilentBootloader, 0, 0, 0},
    {"nackWrite", "block refused by the bootloader", FaultKind::NackWrite, 0, 0, 0},
    {"badVerify", "block stored with its last byte inverted", FaultKind::BadVerify, 0, 0, 0},
    {"refuseGo", "start of the firmware refused", FaultKind::RefuseGo, 0, 0, 0},
    {"diesDuringWrite", "power fails while block VALUE is written", FaultKind::DiesDuringWrite, 1,
     65535, 3},
    {"doubleAck", "single byte of the bootloader sent twice", FaultKind::DoubleAck, 0, 0, 0},
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
        if (takesValue(row))
            line += QStringLiteral(" (default %1)").arg(row.defaultValue);
        lines.append(line);
    }
    return lines;
}

} // namespace sim
