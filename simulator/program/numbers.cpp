#include "numbers.h"

namespace sim {

std::optional<int> parseNumber(const QString &text, int min, int max)
{
    const bool isHex = text.startsWith(QLatin1String("0x"), Qt::CaseInsensitive);
    bool ok = false;
    const int number = isHex ? text.mid(2).toInt(&ok, 16) : text.toInt(&ok, 10);
    if (!ok || number < min || number > max)
        return std::nullopt;
    return number;
}

} // namespace sim
