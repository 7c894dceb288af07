#pragma once

#include "program.h"
#include "standstill.h"

#include <string>
#include <vector>

namespace gripperctl {

/// All grippers of one daemon at about the same time.
struct Snapshot
{
    gripper::Endpoint endpoint;
    gripper::LineImage line;
    std::vector<gripper::Image> grippers;
    Standstill standstill = Standstill::No;

    /// With --gripper, only this one. While a gripper moves, waits up to 2 s for a new value.
    static Snapshot take(Program &program, const gripper::Endpoint &endpoint);

    std::string driver() const { return line.driver.value_or("?"); }
    std::string link() const { return line.link.value_or("?"); }
    std::vector<int> ids() const { return line.ids.value_or(std::vector<int>()); }

    /// The object of status, scan and watch.
    Json json() const;
};

} // namespace gripperctl
