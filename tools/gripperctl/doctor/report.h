#pragma once

#include "checks.h"
#include "failure.h"

#include <string>
#include <utility>
#include <vector>

namespace gripperctl::doctor {

/// The findings of all checks that apply.
class Report
{
public:
    explicit Report(const Facts &facts);

    /// The names of the checks that found a problem.
    std::vector<std::string> problems() const;
    /// A line for each finding, with two more lines for its meaning and the action.
    std::string text() const;
    Json json() const;

private:
    gripper::Endpoint m_endpoint;
    std::vector<std::pair<std::string, Finding>> m_findings; ///< by the name of the check
};

} // namespace gripperctl::doctor
