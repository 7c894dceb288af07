#include "target.h"

#include "problem.h"

#include <charconv>
#include <cstddef>

namespace gateway {

namespace {

constexpr std::string_view apiPrefix = "/api/v1/";

std::vector<std::string> split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    while (true) {
        const std::size_t end = text.find(separator);
        parts.emplace_back(text.substr(0, end));
        if (end == std::string_view::npos)
            return parts;
        text.remove_prefix(end + 1);
    }
}

} // namespace

Target::Target(std::string_view text)
{
    const std::size_t question = text.find('?');
    path = text.substr(0, question);
    if (question != std::string_view::npos)
        query = text.substr(question + 1);
    if (path.rfind(apiPrefix, 0) == 0)
        words = split(std::string_view(path).substr(apiPrefix.size()), '/');
}

std::optional<int> Target::number(std::string_view name, int least, int greatest) const
{
    const std::string prefix = std::string(name) + '=';
    for (const std::string &parameter : split(query, '&')) {
        if (parameter.rfind(prefix, 0) != 0)
            continue;
        const auto value =
            numberIn(std::string_view(parameter).substr(prefix.size()), least, greatest);
        if (!value) {
            throw Problem(status::badRequest, "bad-request",
                          std::string(name) + " is not an integer from " + std::to_string(least) +
                              " to " + std::to_string(greatest));
        }
        return value;
    }
    return std::nullopt;
}

std::optional<int> numberIn(std::string_view text, int least, int greatest)
{
    int number = 0;
    const char *const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    const bool isNumber = !text.empty() && error == std::errc() && stop == end;
    if (!isNumber || number < least || number > greatest)
        return std::nullopt;
    return number;
}

} // namespace gateway
