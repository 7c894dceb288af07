#include "faulttexts.h"

#include <nlohmann/json.hpp>

#include <charconv>
#include <fstream>
#include <iterator>

namespace gateway {

namespace {

constexpr int maxCode = 255;

int codeIn(const std::string &text)
{
    int code = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code);
    if (error != std::errc() || end != text.data() + text.size() || code < 1 || code > maxCode)
        throw std::runtime_error('"' + text + "\" is not a fault code from 1 to 255");
    return code;
}

} // namespace

FaultTexts FaultTexts::fromJson(const std::string &text)
{
    const char *const form = R"(expected an object such as {"Pello": {"12": "text"}})";
    FaultTexts texts;
    const auto root = nlohmann::json::parse(text, nullptr, false);
    if (!root.is_object())
        throw std::runtime_error(form);
    for (const auto &[family, codes] : root.items()) {
        if (!codes.is_object())
            throw std::runtime_error(form);
        for (const auto &[code, value] : codes.items()) {
            if (!value.is_string())
                throw std::runtime_error(form);
            texts.m_texts[{family, codeIn(code)}] = value.get<std::string>();
        }
    }
    return texts;
}

FaultTexts FaultTexts::fromFile(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        throw std::runtime_error("cannot read the fault texts in " + path);
    try {
        return fromJson({std::istreambuf_iterator<char>(file), {}});
    } catch (const std::runtime_error &error) {
        throw std::runtime_error(path + ": " + error.what());
    }
}

std::optional<std::string> FaultTexts::text(const std::string &family, int code) const
{
    const auto found = m_texts.find({family, code});
    return found == m_texts.end() ? std::nullopt : std::optional(found->second);
}

} // namespace gateway
