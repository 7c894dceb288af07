#include "families.h"

#include <algorithm>
#include <iterator>

namespace gateway {

namespace {

constexpr Family families[] = {
    {"Pello", 'A', false},
    {"Varno", 'B', false},
    {"Zentra", 'E', true},
    {"Sorbix", 'F', true},
};

} // namespace

const Family *familyOf(const std::optional<std::string> &firmware)
{
    if (!firmware || firmware->size() < 2)
        return nullptr;
    const auto *family =
        std::find_if(std::begin(families), std::end(families),
                     [&](const Family &known) { return known.letter == (*firmware)[1]; });
    return family == std::end(families) ? nullptr : family;
}

} // namespace gateway
