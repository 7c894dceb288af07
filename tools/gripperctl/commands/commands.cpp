#include "commands.h"

namespace gripperctl {

void addCommands(CLI::App &app, Program &program)
{
    for (const auto add : {addStatus, addGet, addWait, addSet, addActivate, addMove, addOpen,
                           addClose, addStop, addRelease, addLed, addScan, addRename, addUpgrade})
        add(app, program);
}

} // namespace gripperctl
