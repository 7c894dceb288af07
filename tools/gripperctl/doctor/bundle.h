#pragma once

#include "facts.h"
#include "failure.h"

#include <string>

namespace gripperctl::doctor {

/// Throws Failure if the bundle cannot be written to `path`, because a file has this name.
void refuseExisting(const std::string &path);

/// Packs the report, the status and facts of the machine into `path`, a tar.gz with mode 0600. The
/// file appears when it is complete. Throws Failure. Takes at most 15 s.
void writeBundle(const Facts &facts, const Json &report, const Json &status,
                 const std::string &path);

} // namespace gripperctl::doctor
