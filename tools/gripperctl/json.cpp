#include "json.h"

#include <nlohmann/json.hpp>

#include <algorithm>

namespace gripperctl {

/// Reads the private parts for text().
struct Json::Access
{
    using Library = nlohmann::ordered_json;

    Library operator()(const Elements &elements) const
    {
        Library array = Library::array();
        for (const Json &element : elements)
            array.push_back(std::visit(*this, element.m_value));
        return array;
    }

    Library operator()(const Members &members) const
    {
        Library object = Library::object();
        for (const auto &[name, value] : members)
            object[name] = std::visit(*this, value.m_value);
        return object;
    }

    template <typename Value>
    Library operator()(const Value &value) const
    {
        return value;
    }

    /// The name in an array of a name and a value. Null for other values.
    static const std::string *nameIn(const Json &element)
    {
        const auto *pair = std::get_if<Elements>(&element.m_value);
        return pair == nullptr || pair->size() != 2
                   ? nullptr
                   : std::get_if<std::string>(&pair->front().m_value);
    }
};

Json::Json() = default;
Json::Json(const Json &other) = default;
Json::Json(Json &&other) noexcept = default;
Json &Json::operator=(const Json &other) = default;
Json &Json::operator=(Json &&other) noexcept = default;
Json::~Json() = default;

Json::Json(bool value)
    : m_value(value)
{
}

Json::Json(int value)
    : m_value(std::int64_t{value})
{
}

Json::Json(long value)
    : m_value(std::int64_t{value})
{
}

Json::Json(std::size_t value)
    : m_value(static_cast<std::int64_t>(value))
{
}

Json::Json(double value)
    : m_value(value)
{
}

Json::Json(const char *value)
    : m_value(std::string(value))
{
}

Json::Json(std::string value)
    : m_value(std::move(value))
{
}

Json::Json(const std::vector<int> &values)
    : m_value(Elements(values.begin(), values.end()))
{
}

Json::Json(std::initializer_list<Json> elements)
{
    const bool isObject = std::all_of(elements.begin(), elements.end(), Access::nameIn);
    if (!isObject) {
        m_value = Elements(elements);
        return;
    }
    m_value = Members();
    for (const Json &element : elements)
        (*this)[*Access::nameIn(element)] = std::get<Elements>(element.m_value).back();
}

Json Json::array()
{
    Json json;
    json.m_value = Elements();
    return json;
}

Json Json::object()
{
    Json json;
    json.m_value = Members();
    return json;
}

void Json::append(Json element)
{
    std::get<Elements>(m_value).push_back(std::move(element));
}

Json &Json::operator[](const std::string &name)
{
    if (std::holds_alternative<std::nullptr_t>(m_value))
        m_value = Members();
    auto &members = std::get<Members>(m_value);
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&](const auto &member) { return member.first == name; });
    return found == members.end() ? members.emplace_back(name, Json()).second : found->second;
}

void Json::update(const Json &other)
{
    for (const auto &[name, value] : std::get<Members>(other.m_value))
        (*this)[name] = value;
}

std::string Json::text() const
{
    const auto json = std::visit(Access(), m_value);
    return json.dump(-1, ' ', false, Access::Library::error_handler_t::replace);
}

} // namespace gripperctl
