#include "identity.h"

#include "secrets.h"

#include <array>

#include <unistd.h>

namespace gateway {

const std::string &machineName()
{
    static const std::string name = [] {
        constexpr std::size_t longest = 256;
        std::array<char, longest> text{};
        return gethostname(text.data(), text.size() - 1) == 0 ? std::string(text.data())
                                                              : std::string();
    }();
    return name;
}

const std::string &instanceName()
{
    constexpr std::size_t length = 12;
    static const std::string name = randomText(length);
    return name;
}

} // namespace gateway
