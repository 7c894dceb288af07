#include "commands.h"

namespace gripperctl {

void addCommands(CLI::App &app, Program &program)
{
    for (const auto add :
         {addStatus,  addDoctor, addGet,  addWait,     addWatch,   addRecord,    addPlot,  addHz,
          addPing,    addRaw,    addSet,  addActivate, addMove,    addOpen,      addClose, addStop,
          addRelease, addLed,    addScan, addRename,   addUpgrade, addCompletion})
        add(app, program);
}

} // namespace gripperctl
