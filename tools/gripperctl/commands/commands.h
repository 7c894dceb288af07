#pragma once

#include "commandoptions.h"
#include "program.h"

namespace gripperctl {

/// Each function adds one command with its options.
void addActivate(CLI::App &app, Program &program);
void addClose(CLI::App &app, Program &program);
void addCompletion(CLI::App &app, Program &program);
void addDoctor(CLI::App &app, Program &program);
void addGet(CLI::App &app, Program &program);
void addHz(CLI::App &app, Program &program);
void addLed(CLI::App &app, Program &program);
void addMove(CLI::App &app, Program &program);
void addOpen(CLI::App &app, Program &program);
void addPing(CLI::App &app, Program &program);
void addPlot(CLI::App &app, Program &program);
void addRaw(CLI::App &app, Program &program);
void addRecord(CLI::App &app, Program &program);
void addRelease(CLI::App &app, Program &program);
void addRename(CLI::App &app, Program &program);
void addScan(CLI::App &app, Program &program);
void addSet(CLI::App &app, Program &program);
void addStatus(CLI::App &app, Program &program);
void addStop(CLI::App &app, Program &program);
void addUpgrade(CLI::App &app, Program &program);
void addWait(CLI::App &app, Program &program);
void addWatch(CLI::App &app, Program &program);

/// Adds all commands, in the order of the help.
void addCommands(CLI::App &app, Program &program);

} // namespace gripperctl
