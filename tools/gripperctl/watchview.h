#pragma once

#include "failure.h"
#include "looks.h"

#include <map>
#include <string>
#include <vector>

namespace gripperctl {

struct ScreenLine
{
    std::string text;
    bool isAlarming = false; ///< a fault, or an outage
};

/// The lines of the live view of all hosts, none longer than `width`.
std::vector<ScreenLine> watchScreen(const std::map<std::string, Look> &looks, int width);

/// A line of NAME=VALUE words without blanks for each gripper. `withHost` adds the host.
std::string watchText(const Look &look, bool withHost);

Json watchJson(const Look &look);

/// Such as "#####-|---" for a position left of the requested one. Has `cells` characters.
std::string positionBar(int position, int requested, int cells);

} // namespace gripperctl
