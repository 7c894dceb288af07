#include "commandtable.h"

#include "commands/commands.h"

#include <algorithm>
#include <limits>

namespace gripperctl {

namespace {

constexpr int anyNumber = std::numeric_limits<int>::max();

} // namespace

bool CommandRow::takes(const char *option) const
{
    return options.count(option) > 0;
}

QString CommandRow::nameText() const
{
    return QString::fromLatin1(name);
}

QString CommandRow::argumentsText() const
{
    return QString::fromLatin1(arguments);
}

const QVector<CommandRow> &commandTable()
{
    static const QVector<CommandRow> rows{
        {"status",
         "",
         0,
         0,
         {},
         "Show the driver, its link, and every gripper found.",
         "With --gripper, show this gripper only.",
         "status --json",
         runStatus},
        {"get",
         "NAME...",
         1,
         anyNumber,
         {},
         "Read values of the protocol.",
         "For one name, print only the value; for several names, a line \"NAME VALUE\" for each.",
         "get POS OBJ",
         runGet},
        {"set",
         "NAME [NUMBER]...",
         1,
         anyNumber,
         {},
         "Set variables of the protocol, in one request.",
         "Numbers are 0 to 255. Settings for the next movement may come in any order.",
         "set MSC 100",
         runSet},
        {"activate",
         "",
         0,
         0,
         {"wait", "again"},
         "Make the gripper ready to move.",
         "Fingers open fully during the activation. An active gripper stays as it is, unless "
         "--again is given.",
         "activate --wait",
         runActivate},
        {"move",
         "POSITION",
         1,
         1,
         {"speed", "force", "wait"},
         "Go to a position of 0 (open) to 255.",
         "With --wait, the result says whether the gripper reached the position or met an object.",
         "move 120 --speed 100 --force 20 --wait",
         runMove},
        {"open",
         "",
         0,
         0,
         {"speed", "force", "wait"},
         "Go to position 0.",
         "The same as move 0.",
         "open --wait",
         runOpen},
        {"close",
         "",
         0,
         0,
         {"speed", "force", "wait"},
         "Go to position 255.",
         "The same as move 255.",
         "close --force 50 --wait",
         runClose},
        {"release",
         "",
         0,
         0,
         {"closing", "wait"},
         "Let go slowly, even if an object is in the way.",
         "For a robot that is stuck. Afterwards the gripper moves only when it is activated again.",
         "release",
         runRelease},
        {"led",
         "COLOUR...",
         1,
         3,
         {},
         "Light the LED: red, green, blue; off; or auto.",
         "Several colours mix. auto gives the LED back to the gripper.",
         "led red blue",
         runLed},
        {"scan",
         "",
         0,
         0,
         {},
         "Look for grippers again, and show those found.",
         "A scan takes one or two seconds. Polling pauses during the scan.",
         "scan",
         runScan},
        {"rename",
         "OLD NEW",
         2,
         2,
         {},
         "Give a gripper another id: 9, 2, 3 or 4.",
         "This takes about ten seconds. Other ids are refused, because no scan looks for them.",
         "rename 9 2",
         runRename},
        {"upgrade",
         "",
         0,
         0,
         {"yes", "expect"},
         "Write the firmware of the gripper's family into the gripper.",
         "The image is in the daemon's working directory. This takes about a minute; do not switch "
         "the gripper off meanwhile.",
         "upgrade --gripper 9 --yes",
         runUpgrade},
        {"watch",
         "",
         0,
         0,
         {"interval", "count"},
         "Show positions, currents, objects and faults, live.",
         "If the output is not a terminal, print a line for each gripper after each reading. "
         "Ctrl-C ends it.",
         "watch --interval 0.5",
         runWatch},
        {"record",
         "FILE.csv",
         1,
         1,
         {"interval", "seconds"},
         "Write positions and currents into a file.",
         "Records until Ctrl-C, or for --seconds. Overwrites the file.",
         "record grip.csv --seconds 30",
         runRecord},
        {"plot",
         "FILE.csv",
         1,
         1,
         {"output"},
         "Draw a recording, with gnuplot.",
         "This needs no daemon.",
         "plot grip.csv -o grip.png",
         runPlot},
    };
    return rows;
}

const CommandRow *findCommand(const QString &name)
{
    const QVector<CommandRow> &rows = commandTable();
    const auto *row = std::find_if(rows.begin(), rows.end(), [&](const CommandRow &known) {
        return name == QLatin1String(known.name);
    });
    return row == rows.end() ? nullptr : row;
}

} // namespace gripperctl
