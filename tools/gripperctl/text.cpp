#include "text.h"

#include <algorithm>
#include <cctype>
#include <ctime>
#include <iomanip>
#include <numeric>

namespace gripperctl {

namespace {

constexpr std::size_t screenWidth = 80;

} // namespace

std::string listOfIds(const std::vector<int> &ids)
{
    return ids.empty() ? "none" : join(ids);
}

std::string upper(std::string text)
{
    for (char &letter : text)
        letter = static_cast<char>(std::toupper(static_cast<unsigned char>(letter)));
    return text;
}

std::string timeText(std::chrono::system_clock::time_point time)
{
    using namespace std::chrono;
    const std::time_t seconds = system_clock::to_time_t(floor<std::chrono::seconds>(time));
    const auto part = floor<milliseconds>(time.time_since_epoch()) % std::chrono::seconds(1);
    std::tm local = {};
    localtime_r(&seconds, &local);
    std::ostringstream text;
    text << std::put_time(&local, "%FT%T.") << std::setw(3) << std::setfill('0') << part.count()
         << std::put_time(&local, "%z");
    // The offset with a colon, as RFC 3339 has it.
    std::string written = text.str();
    return written.insert(written.size() - 2, ":");
}

std::vector<std::string> tableLines(const std::vector<std::vector<std::string>> &rows)
{
    std::vector<std::size_t> widths(rows.front().size());
    for (const auto &row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column)
            widths[column] = std::max(widths[column], row[column].size());
    }
    const std::size_t sum = std::accumulate(widths.begin(), widths.end(), std::size_t{0});
    const std::size_t gap = sum + 2 * (widths.size() - 1) <= screenWidth ? 2 : 1;
    std::vector<std::string> lines;
    lines.reserve(rows.size());
    for (const auto &row : rows) {
        std::string line;
        for (std::size_t column = 0; column < row.size(); ++column)
            line += row[column] + std::string(widths[column] - row[column].size() + gap, ' ');
        line.erase(line.find_last_not_of(' ') + 1);
        lines.push_back(line);
    }
    return lines;
}

} // namespace gripperctl
