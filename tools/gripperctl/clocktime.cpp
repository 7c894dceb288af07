#include "clocktime.h"

#include "text.h"

#include <array>
#include <cmath>
#include <ctime>
#include <regex>

namespace gripperctl {

namespace {

std::string formatted(const char *format, const std::tm &parts)
{
    std::array<char, 40> text = {};
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

} // namespace

std::string clockText(std::chrono::system_clock::time_point time)
{
    // The time of the day and the offset in a text such as 2026-11-21T22:38:18.123+01:00.
    const std::string text = timeText(time);
    return text.substr(11, 8) + text.substr(23);
}

std::optional<LocalTime> parseTime(const std::string &text)
{
    static const std::regex form(
        R"((\d{4})-(\d\d)-(\d\d)T(\d\d):(\d\d):(\d\d\.\d{3})(Z|[+-]\d\d:\d\d))");
    std::smatch found;
    if (!std::regex_match(text, found, form))
        return std::nullopt;
    std::tm parts = {};
    parts.tm_year = std::stoi(found[1]) - 1900;
    parts.tm_mon = std::stoi(found[2]) - 1;
    parts.tm_mday = std::stoi(found[3]);
    parts.tm_hour = std::stoi(found[4]);
    parts.tm_min = std::stoi(found[5]);
    const auto whole = static_cast<double>(timegm(&parts));
    return LocalTime{whole + std::stod(found[6]), found[7] == "Z" ? "+00:00" : found[7].str()};
}

std::string dateText(const LocalTime &time)
{
    const auto seconds = static_cast<std::time_t>(std::floor(time.seconds));
    std::tm parts = {};
    gmtime_r(&seconds, &parts);
    return formatted("%Y-%m-%d %H:%M:%S", parts) + time.offset;
}

} // namespace gripperctl
