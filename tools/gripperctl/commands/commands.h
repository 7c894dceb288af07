#pragma once

#include "program.h"

#include <CLI/CLI.hpp>

namespace gripperctl {

/// Each function adds one command with its options.
void addStatus(CLI::App &app, Program &program);
void addWatch(CLI::App &app, Program &program);
void addRecord(CLI::App &app, Program &program);
void addPlot(CLI::App &app, Program &program);
void addHz(CLI::App &app, Program &program);
void addPing(CLI::App &app, Program &program);
void addRaw(CLI::App &app, Program &program);
void addCompletion(CLI::App &app, Program &program);

/// Adds all commands, in the order of the help.
void addCommands(CLI::App &app, Program &program);

} // namespace gripperctl
