#include "report.h"

#include "output.h"
#include "text.h"
#include "version.h"

#include <algorithm>
#include <chrono>

namespace gripperctl::doctor {

namespace {

constexpr std::size_t levelWidth = 9;
constexpr std::size_t nameWidth = 16;

std::string padded(std::string text, std::size_t width)
{
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string linesFor(const std::string &name, const Finding &finding)
{
    const std::string level = padded(wordOf(finding.level), levelWidth);
    const bool isProblem = finding.level == Level::Problem;
    std::string text = concat(isProblem ? Output::highlighted(level) : level,
                              padded(name, nameWidth), finding.result, '\n');
    const std::string indent(levelWidth + nameWidth, ' ');
    if (!finding.meaning.empty())
        text += concat(indent, finding.meaning, '\n');
    if (!finding.action.empty())
        text += concat(indent, "-> ", finding.action, '\n');
    return text;
}

} // namespace

Report::Report(const Facts &facts)
    : m_endpoint(facts.endpoint)
{
    for (const Check &check : checks()) {
        if (!facts.isHere && !check.isOverTcp)
            continue;
        for (const Finding &finding : check.look(facts))
            m_findings.emplace_back(check.name, finding);
    }
    if (!facts.isHere)
        m_findings.emplace_back(
            "machine", Finding{Level::Unseen, concat(facts.endpoint.host, " is another machine"),
                               "Its service, its ports and its adapters are not visible from here.",
                               "Run gripperctl doctor on that machine."});
}

std::vector<std::string> Report::problems() const
{
    std::vector<std::string> names;
    for (const auto &[name, finding] : m_findings) {
        const bool isNew = names.empty() || names.back() != name;
        if (finding.level == Level::Problem && isNew)
            names.push_back(name);
    }
    return names;
}

std::string Report::text() const
{
    std::string text;
    for (const auto &[name, finding] : m_findings)
        text += linesFor(name, finding);
    text.pop_back();
    return text;
}

Json Report::json() const
{
    Json findings = Json::array();
    for (const auto &[name, finding] : m_findings)
        findings.push_back({{"check", name},
                            {"level", wordOf(finding.level)},
                            {"result", finding.result},
                            {"meaning", finding.meaning},
                            {"action", finding.action}});
    return {{"time", timeText(std::chrono::system_clock::now())},
            {"host", m_endpoint.text()},
            {"version", tools::version},
            {"problems", problems()},
            {"findings", findings}};
}

} // namespace gripperctl::doctor
