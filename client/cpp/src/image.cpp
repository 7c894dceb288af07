#include "gripper/image.h"

#include "gripper/errors.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace gripper {

namespace {

// The daemon answers so many GETs of one packet from one state.
constexpr std::size_t maxRequestsOfOneState = 32;
static_assert(getVariables.size() <= maxRequestsOfOneState,
              "an image must come from one state of the daemon");

// The link and the list belong to an image: they show whether its values are old.
constexpr const char *lineNamesOfImage[] = {"DRI", "SID", "UPG"};

[[noreturn]] void failByValue(const Reply &reply)
{
    throw ProtocolError("the server does not answer like gripperd (" + std::string(reply.name) +
                        " has the value \"" + std::string(reply.value) + "\"): check the address");
}

template <typename Number>
Number numberIn(const Reply &reply)
{
    Number number{};
    const char *const end = reply.value.data() + reply.value.size();
    const auto [stop, error] = std::from_chars(reply.value.data(), end, number);
    if (error != std::errc() || stop != end || number < 0)
        failByValue(reply);
    return number;
}

void decode(const Reply &reply, std::optional<int> &value)
{
    value = numberIn<int>(reply);
}

void decode(const Reply &reply, std::optional<std::int64_t> &value)
{
    value = numberIn<std::int64_t>(reply);
}

void decode(const Reply &reply, std::optional<bool> &value)
{
    if (reply.value != "0" && reply.value != "1")
        failByValue(reply);
    value = reply.value == "1";
}

void decode(const Reply &reply, std::optional<std::string> &value)
{
    value = std::string(reply.value);
}

/// Reads a list such as "[2, 9]".
void decode(const Reply &reply, std::optional<std::vector<int>> &value)
{
    std::string_view list = reply.value;
    if (list.size() < 2 || list.front() != '[' || list.back() != ']')
        failByValue(reply);
    list = list.substr(1, list.size() - 2);
    value.emplace();
    while (!list.empty()) {
        const std::size_t end = std::min(list.find(','), list.size());
        value->push_back(numberIn<int>({reply.name, list.substr(0, end)}));
        list.remove_prefix(end);
        if (list.empty())
            return;
        // Another id must follow the separator.
        if (list.size() < 3 || list.substr(0, 2) != ", ")
            failByValue(reply);
        list.remove_prefix(2);
    }
}

/// Decodes the replies from `position` on, and returns the position after them.
template <typename Values>
std::size_t decodeAll(const std::vector<Reply> &replies, Values &values)
{
    std::size_t position = 0;
    forEachValue(values, [&](std::string_view name, auto &value) {
        if (position < replies.size() && replies[position].name == name) {
            if (replies[position].hasValue())
                decode(replies[position], value);
            ++position;
        }
    });
    return position;
}

LineState stateIn(const LineValues &values)
{
    LineState state;
    state.text = values.link.value_or(std::string());
    state.running = state.text == "RUNNING";
    state.scanning = state.text == "SCANNING";
    state.upgrading = values.upgrading.value_or(false);
    return state;
}

} // namespace

ReadingTime ReadingTime::now()
{
    return {std::chrono::steady_clock::now(), std::chrono::system_clock::now()};
}

LineState LineImage::state() const
{
    return stateIn(*this);
}

const Batch &imageRequests()
{
    static const Batch batch = [] {
        Batch requests;
        Values values;
        forEachValue(values, [&](std::string_view name, auto &) { requests.get(name); });
        for (const char *name : lineNamesOfImage)
            requests.get(name);
        return requests;
    }();
    return batch;
}

const Batch &lineRequests()
{
    static const Batch batch = [] {
        Batch requests;
        LineValues values;
        forEachValue(values, [&](std::string_view name, auto &) { requests.get(name); });
        return requests;
    }();
    return batch;
}

Image decodeImage(int id, const std::vector<Reply> &replies, const ReadingTime &time)
{
    Image image;
    image.id = id;
    image.time = time;
    const std::size_t count = decodeAll<Values>(replies, image);
    LineValues line;
    decodeAll(
        std::vector<Reply>(replies.begin() + static_cast<std::ptrdiff_t>(count), replies.end()),
        line);
    image.line = stateIn(line);
    image.listed = line.ids.value_or(std::vector<int>());
    image.present = image.status.has_value();
    image.stale = !image.present || !image.line.running;
    return image;
}

LineImage decodeLine(const std::vector<Reply> &replies, const ReadingTime &time)
{
    LineImage image;
    image.time = time;
    decodeAll<LineValues>(replies, image);
    return image;
}

} // namespace gripper
