#pragma once

#include <QString>

struct CommandRow;

/// What --help prints.
QString generalHelp();
QString helpFor(const CommandRow &command);
