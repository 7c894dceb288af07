#pragma once

#include <string>

namespace gripperctl {

/// Runs gnuplot with this script, and returns the picture that it writes to its standard output.
/// Blocks until gnuplot ends. Throws Failure.
std::string runGnuplot(const std::string &script);

} // namespace gripperctl
