#pragma once

#include <QString>

namespace gripperctl {

struct CommandRow;

/// What --help prints.
QString generalHelp();
QString helpFor(const CommandRow &command);

} // namespace gripperctl
