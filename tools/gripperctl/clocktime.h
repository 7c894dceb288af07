#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace gripperctl {

/// Without date and milliseconds, for people: "22:38:18+01:00".
std::string clockText(std::chrono::system_clock::time_point time);

/// A time as its own clock showed it.
struct LocalTime
{
    double seconds;     ///< since 1970, on that clock
    std::string offset; ///< of that clock from UTC, such as "+01:00"
};

/// Reads the form of timeText() in text.h, also with the offset "Z". Empty for any other text.
std::optional<LocalTime> parseTime(const std::string &text);

/// "2026-11-21 22:38:18+01:00"
std::string dateText(const LocalTime &time);

} // namespace gripperctl
