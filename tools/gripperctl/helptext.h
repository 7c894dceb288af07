#pragma once

#include <QString>

namespace gripperctl {

struct CommandRow;

QString generalHelp();
QString helpFor(const CommandRow &command);

} // namespace gripperctl
