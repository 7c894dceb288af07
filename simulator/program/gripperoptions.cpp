#include "gripperoptions.h"

#include "devicemap.h"
#include "failure.h"
#include "numbers.h"

namespace sim {

namespace {
constexpr int maxYear = 0xFFFF;
}

std::optional<PerGripperText> PerGripperText::fromWord(const QString &word)
{
    const int equals = word.indexOf(QLatin1Char('='));
    if (equals < 0)
        return std::nullopt;
    const std::optional<int> slaveId =
        parseNumber(word.left(equals), map::minSlaveId, map::maxSlaveId);
    if (!slaveId)
        return std::nullopt;
    return PerGripperText{static_cast<quint8>(*slaveId), word.mid(equals + 1)};
}

GripperOptions GripperOptions::fromWords(const QStringList &words)
{
    const auto start = PerGripperText::fromWord(words.value(0));
    const auto identity =
        start ? GripperIdentity::fromVersion(start->slaveId, start->text) : std::nullopt;
    if (!identity) {
        throw Failure{
            QStringLiteral("\"%1\" is not a gripper; write ID=VERSION with an ID of 1 to 247 "
                           "and a VERSION such as TA3-1.6.14 (TA, TB, TE or TF)")
                .arg(words.value(0))};
    }
    GripperOptions options{start->slaveId, *identity};
    for (const QString &word : words.mid(1)) {
        if (!options.applyWord(word))
            throw Failure{
                QStringLiteral("unexpected word \"%1\"; write serial=ABC-0042 or year=2023")
                    .arg(word)};
    }
    return options;
}

bool GripperOptions::applyWord(const QString &word)
{
    const QString value = word.section(QLatin1Char('='), 1);
    if (word.startsWith(QLatin1String("serial=")))
        return identity.setSerial(value);
    const std::optional<int> year = parseNumber(value, 0, maxYear);
    if (!word.startsWith(QLatin1String("year=")) || !year)
        return false;
    identity.year = static_cast<quint16>(*year);
    return true;
}

} // namespace sim
