#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace gripperctl {

/// A JSON value. An object keeps the order of its members.
///
/// Every command includes this class, and each file that includes nlohmann_json takes seconds to
/// compile. Only json.cpp does.
class Json
{
public:
    /// null
    Json();
    Json(bool value);
    Json(int value);
    Json(long value);
    Json(std::size_t value);
    Json(double value);
    Json(const char *value);
    Json(std::string value);
    Json(const std::vector<int> &values);
    /// An object if every element is a pair of a name and a value, otherwise an array.
    Json(std::initializer_list<Json> elements);

    Json(const Json &other);
    Json(Json &&other) noexcept;
    Json &operator=(const Json &other);
    Json &operator=(Json &&other) noexcept;
    ~Json();

    static Json array();
    static Json object();

    /// Appends to an array.
    void append(Json element);

    /// The member of an object, which this call adds if it is missing. null becomes an object.
    Json &operator[](const std::string &name);

    /// Sets all members of `other`, also an object.
    void update(const Json &other);

    /// The JSON in one line. Replaces bytes that are not UTF-8.
    std::string text() const;

private:
    struct Access;
    using Elements = std::vector<Json>;
    using Members = std::vector<std::pair<std::string, Json>>;

    std::variant<std::nullptr_t, bool, std::int64_t, double, std::string, Elements, Members>
        m_value;
};

} // namespace gripperctl
