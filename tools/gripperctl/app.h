#pragma once

#include "program.h"

#include <CLI/CLI.hpp>

#include <memory>

namespace gripperctl {

/// All commands and options. A command runs within parse(), and throws Failure or gripper::Error if
/// it fails.
std::unique_ptr<CLI::App> makeApp(Program &program);

/// The message for a wrong command line.
Failure usageFailure(const CLI::App &app, const CLI::ParseError &error);

} // namespace gripperctl
