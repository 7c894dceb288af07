#include "productfamily.h"

#include <algorithm>

namespace {

constexpr int familyLetterIndex = 1;

} // namespace

bool startsWithProductCode(const QString &firmwareVersion)
{
    return std::any_of(
        productFamilies.begin(), productFamilies.end(),
        [&](const ProductFamily *family) { return firmwareVersion.startsWith(family->code); });
}

const ProductFamily *productFamilyOf(const QString &firmwareVersion)
{
    if (firmwareVersion.size() <= familyLetterIndex)
        return nullptr;
    const QChar letter = firmwareVersion[familyLetterIndex];
    const auto *const found = std::find_if(
        productFamilies.begin(), productFamilies.end(), [&](const ProductFamily *family) {
            return QChar(family->code[familyLetterIndex]) == letter;
        });
    return found != productFamilies.end() ? *found : nullptr;
}
