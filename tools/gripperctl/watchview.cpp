#include "watchview.h"

#include "gripperview.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

using gripper::Image;
using gripper::Outage;

constexpr int maxPosition = 255;
constexpr int minBarWidth = 10;
constexpr int maxBarWidth = 100;

int cellOf(int position, int cells)
{
    return (std::clamp(position, 0, maxPosition) * (cells - 1) + maxPosition / 2) / maxPosition;
}

std::string right(const std::string &text, std::size_t width)
{
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string left(const std::string &text, std::size_t width)
{
    return text + std::string(width - std::min(width, text.size()), ' ');
}

/// A part of a gripper's line. Where the line is too long, the parts of the lowest rank go first.
struct Part
{
    int rank;
    std::string text;
};

constexpr int neverDropped = 9;

std::string joined(const std::vector<Part> &parts)
{
    std::string line;
    for (const Part &part : parts)
        line += (line.empty() || part.text.empty() ? "" : " ") + part.text;
    return line;
}

std::string fitted(std::vector<Part> parts, std::size_t width)
{
    for (int rank = 0; rank < neverDropped && joined(parts).size() > width; ++rank) {
        parts.erase(std::remove_if(parts.begin(), parts.end(),
                                   [&](const Part &part) { return part.rank == rank; }),
                    parts.end());
    }
    return joined(parts);
}

std::string imageLine(const Image &image, int width)
{
    const int position = image.position.value_or(0);
    const int requested = image.requestedPosition.value_or(0);
    std::vector<Part> parts{
        {neverDropped, right(std::to_string(image.id), 2)},
        {1, left(familyOf(image), 6)},
        {2, left(statusText(image), 10)},
        {0, {}}, // the bar
        {neverDropped, right(numberText(image.position), 3)},
        {3, "-> " + right(numberText(image.requestedPosition), 3)},
        {neverDropped, " current " + right(numberText(image.current), 3)},
        {4, ' ' + left(objectText(image), 7)},
        {neverDropped, "fault " + faultText(image)},
    };
    const auto bar =
        std::find_if(parts.begin(), parts.end(), [](const Part &part) { return part.rank == 0; });
    const int room = width - static_cast<int>(joined(parts).size()) - 3;
    bar->text =
        '[' + positionBar(position, requested, std::clamp(room, minBarWidth, maxBarWidth)) + ']';
    return fitted(parts, static_cast<std::size_t>(width));
}

std::string reasonWord(const Outage &outage)
{
    constexpr const char *words[] = {"no_connection", "link_down", "missing"};
    return words[static_cast<std::size_t>(outage.reason)];
}

/// Without date and milliseconds: "22:38:18+01:00".
std::string clockText(const gripper::ReadingTime &time)
{
    const std::string text = timeText(time.wall);
    return text.substr(11, 8) + text.substr(23);
}

std::string outageLine(const Outage &outage)
{
    const std::string since = " since " + clockText(outage.since);
    if (outage.id == 0)
        return "no grippers found" + since;
    std::string reason = reasonWord(outage);
    std::replace(reason.begin(), reason.end(), '_', ' ');
    return right(std::to_string(outage.id), 2) + ' ' + reason + since;
}

ScreenLine screenLine(const gripper::WatchItem &item, int width)
{
    if (const auto *image = std::get_if<Image>(&item))
        return {imageLine(*image, width), image->fault.value_or(0) != 0};
    return {outageLine(std::get<Outage>(item)), true};
}

/// The state of the link, from the same packet as the first item.
std::string linkText(const Look &look)
{
    const gripper::WatchItem &first = look.items.front();
    if (const auto *image = std::get_if<Image>(&first))
        return image->line.text;
    const auto &outage = std::get<Outage>(first);
    if (outage.reason == Outage::Reason::NoConnection)
        return "no connection";
    return outage.reason == Outage::Reason::LinkDown ? outage.text : linkRuns;
}

ScreenLine headLine(const Look &look)
{
    const std::string driver = look.driver.empty() ? "" : ' ' + look.driver;
    const std::string link = linkText(look);
    return {"gripperd" + driver + " on " + look.host + "  link " + link + "  " +
                clockText(look.time()),
            link != linkRuns};
}

std::string withoutBlanks(std::string text)
{
    std::replace(text.begin(), text.end(), ' ', '_');
    return text;
}

std::string wordsOf(const Image &image)
{
    return " gripper=" + std::to_string(image.id) + " status=" + statusText(image) +
           " position=" + numberText(image.position) +
           " requested=" + numberText(image.requestedPosition) +
           " current=" + numberText(image.current) + " object=" + objectText(image) +
           " fault=" + numberText(image.fault);
}

std::string wordsOf(const Outage &outage)
{
    if (outage.id == 0)
        return " no grippers found";
    return " gripper=" + std::to_string(outage.id) + " outage=" + reasonWord(outage) +
           " since=" + timeText(outage.since.wall);
}

} // namespace

std::string positionBar(int position, int requested, int cells)
{
    std::string drawn(static_cast<std::size_t>(cells), '-');
    if (position > 0) {
        const auto end = cellOf(position, cells) + 1;
        std::fill(drawn.begin(), drawn.begin() + end, '#');
    }
    drawn[static_cast<std::size_t>(cellOf(requested, cells))] = '|';
    return drawn;
}

std::vector<ScreenLine> watchScreen(const std::map<std::string, Look> &looks, int width)
{
    std::vector<ScreenLine> lines;
    for (const auto &[host, look] : looks) {
        lines.push_back(headLine(look));
        for (const gripper::WatchItem &item : look.items)
            lines.push_back(screenLine(item, width));
    }
    if (!lines.empty())
        lines.front().text += "  Ctrl-C ends";
    for (ScreenLine &line : lines)
        line.text.resize(std::min(line.text.size(), static_cast<std::size_t>(width)));
    return lines;
}

std::string watchText(const Look &look, bool withHost)
{
    const std::string begin = timeText(look.time().wall) + " link=" + withoutBlanks(linkText(look));
    const std::string end = withHost ? " host=" + look.host : std::string();
    std::string text;
    for (const gripper::WatchItem &item : look.items) {
        text += text.empty() ? "" : "\n";
        const auto words = [](const auto &value) { return wordsOf(value); };
        text += concat(begin, std::visit(words, item), end);
    }
    return text;
}

Json watchJson(const Look &look)
{
    Json grippers = Json::array();
    Json outages = Json::array();
    for (const gripper::WatchItem &item : look.items) {
        if (const auto *image = std::get_if<Image>(&item)) {
            grippers.append(jsonOf(*image));
            continue;
        }
        const auto &outage = std::get<Outage>(item);
        outages.append({{"id", outage.id},
                        {"reason", reasonWord(outage)},
                        {"text", outage.text},
                        {"since", timeText(outage.since.wall)}});
    }
    return {{"time", timeText(look.time().wall)},
            {"host", look.host},
            {"driver", look.driver},
            {"link", linkText(look)},
            {"grippers", grippers},
            {"outages", outages}};
}

} // namespace gripperctl
