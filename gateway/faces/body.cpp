#include "body.h"

#include "problem.h"

#include <cstddef>
#include <cstdint>

namespace gateway {

namespace {

constexpr std::size_t maxText = 64;
/// Programs that read JSON numbers as floating point keep integers up to this one.
constexpr std::uint64_t greatestExact = (std::uint64_t{1} << 53U) - 1;

[[noreturn]] void refuse(const std::string &text)
{
    throw Problem(status::badRequest, "bad-request", text);
}

template <typename Value>
Value required(const char *name, const std::optional<Value> &value)
{
    if (!value)
        refuse(std::string("the member \"") + name + "\" is missing");
    return *value;
}

/// Readers may take either of two members with one name, so both are refused.
nlohmann::json objectIn(const std::string &text)
{
    using Json = nlohmann::json;
    std::set<std::string> names;
    bool isUnique = true;
    const auto look = [&](int depth, Json::parse_event_t event, const Json &name) {
        if (depth == 1 && event == Json::parse_event_t::key)
            isUnique = names.insert(name.get<std::string>()).second && isUnique;
        return true;
    };
    Json object = Json::parse(text, look, false);
    if (!isUnique)
        refuse("the body has a member twice");
    return object;
}

} // namespace

Body::Body(const std::string &text)
    : m_object(objectIn(text))
{
    if (!m_object.is_object())
        refuse("the body is not a JSON object");
}

std::optional<std::string> Body::text(const char *name)
{
    const nlohmann::json *value = find(name);
    if (value == nullptr)
        return std::nullopt;
    if (!value->is_string() || value->get_ref<const std::string &>().size() > maxText)
        refuse(std::string("\"") + name + "\" is not a text of at most 64 bytes");
    return value->get<std::string>();
}

std::optional<int> Body::number(const char *name, int least, int greatest)
{
    const nlohmann::json *value = find(name);
    if (value == nullptr)
        return std::nullopt;
    // All ranges here are not negative, and a conversion of a greater number would wrap.
    const bool isInRange = value->is_number_unsigned() &&
                           value->get<std::uint64_t>() >= static_cast<std::uint64_t>(least) &&
                           value->get<std::uint64_t>() <= static_cast<std::uint64_t>(greatest);
    if (!isInRange) {
        refuse(std::string("\"") + name + "\" is not an integer from " + std::to_string(least) +
               " to " + std::to_string(greatest));
    }
    return value->get<int>();
}

std::optional<bool> Body::flag(const char *name)
{
    const nlohmann::json *value = find(name);
    if (value == nullptr)
        return std::nullopt;
    if (!value->is_boolean())
        refuse(std::string("\"") + name + "\" is neither true nor false");
    return value->get<bool>();
}

std::optional<std::int64_t> Body::milliseconds(const char *name)
{
    const nlohmann::json *value = find(name);
    if (value == nullptr)
        return std::nullopt;
    if (!value->is_number_unsigned() || value->get<std::uint64_t>() > greatestExact) {
        refuse(std::string("\"") + name +
               "\" is not an integer of milliseconds since 1970, such as 1700000000000");
    }
    return value->get<std::int64_t>();
}

std::string Body::requiredText(const char *name)
{
    return required(name, text(name));
}

int Body::requiredNumber(const char *name, int least, int greatest)
{
    return required(name, number(name, least, greatest));
}

bool Body::requiredFlag(const char *name)
{
    return required(name, flag(name));
}

void Body::finish() const
{
    for (const auto &member : m_object.items()) {
        if (m_known.count(member.key()) == 0)
            refuse("the body has an unknown member");
    }
}

const nlohmann::json *Body::find(const char *name)
{
    m_known.insert(name);
    const auto member = m_object.find(name);
    return member == m_object.end() ? nullptr : &*member;
}

} // namespace gateway
