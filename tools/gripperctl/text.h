#pragma once

#include <chrono>
#include <sstream>
#include <string>
#include <vector>

namespace gripperctl {

/// Writes all parts one after the other.
template <typename... Parts>
std::string concat(const Parts &...parts)
{
    std::ostringstream text;
    (text << ... << parts);
    return text.str();
}

/// Puts `separator` between the items: "2, 9".
template <typename Item>
std::string join(const std::vector<Item> &items, const std::string &separator = ", ")
{
    std::ostringstream text;
    for (const Item &item : items)
        text << (&item == &items.front() ? "" : separator) << item;
    return text.str();
}

/// A text such as "2, 9", or "none".
std::string listOfIds(const std::vector<int> &ids);

std::string upper(std::string text);

/// The local time with its offset from UTC: "2026-05-06T07:08:09.010+02:00".
std::string timeText(std::chrono::system_clock::time_point time);

/// Rows of words below a header. Each column is as wide as its widest word. The gap between two
/// columns shrinks if a line would be longer than 80 characters.
std::vector<std::string> tableLines(const std::vector<std::vector<std::string>> &rows);

} // namespace gripperctl
