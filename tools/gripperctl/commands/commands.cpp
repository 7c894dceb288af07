#include "commands.h"

namespace gripperctl {

void addCommands(CLI::App &app, Program &program)
{
    for (const auto add :
         {addStatus, addWatch, addRecord, addPlot, addHz, addPing, addRaw, addCompletion})
        add(app, program);
}

} // namespace gripperctl
