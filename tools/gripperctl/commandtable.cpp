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
         "The driver, its link, and every gripper found.",
         "Without --gripper all of them.",
         "status --json",
         runStatus},
        {"get",
         "NAME...",
         1,
         anyNumber,
         {},
         "Values of the protocol, as they come.",
         "One value alone, or one \"NAME VALUE\" line each.",
         "get POS OBJ",
         runGet},
        {"set",
         "NAME [NUMBER]...",
         1,
         anyNumber,
         {},
         "Variables of the protocol, in one request.",
         "Numbers are 0 to 255. Of a request for the next movement the order does not matter.",
         "set MSC 100",
         runSet},
        {"activate",
         "",
         0,
         0,
         {"wait", "again"},
         "Make the gripper ready to move.",
         "Fingers open fully on the way. A gripper that is active is left alone without --again.",
         "activate --wait",
         runActivate},
        {"move",
         "POSITION",
         1,
         1,
         {"speed", "force", "wait"},
         "Go to a position of 0 (open) to 255.",
         "With --wait it tells whether the position was reached or an object was met.",
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
         "Let go slowly, whatever is in the way.",
         "For a robot in trouble. The gripper takes no movement afterwards until it is activated.",
         "release",
         runRelease},
        {"led",
         "COLOUR...",
         1,
         3,
         {},
         "Light the LED: red, green, blue; off; or auto.",
         "Colours mix. auto gives the LED back to the gripper.",
         "led red blue",
         runLed},
        {"scan",
         "",
         0,
         0,
         {},
         "Look for grippers anew, and show which are there.",
         "Takes a second or two. Polling stands still meanwhile.",
         "scan",
         runScan},
        {"rename",
         "OLD NEW",
         2,
         2,
         {},
         "Move a gripper to another id: 9, 2, 3 or 4.",
         "Takes about ten seconds. A scan looks for these four ids only, so no other is taken.",
         "rename 9 2",
         runRename},
        {"upgrade",
         "",
         0,
         0,
         {"yes", "expect"},
         "Write the firmware of its family into the gripper.",
         "The daemon has the file. Takes a minute or so; do not switch the gripper off meanwhile.",
         "upgrade --gripper 9 --yes",
         runUpgrade},
        {"watch",
         "",
         0,
         0,
         {"interval", "count"},
         "Positions, currents, objects and faults, live.",
         "One line a gripper and look where the output is no terminal. Ctrl-C ends it.",
         "watch --interval 0.5",
         runWatch},
        {"record",
         "FILE.csv",
         1,
         1,
         {"interval", "seconds"},
         "Write positions and currents into a file.",
         "Until Ctrl-C, or for --seconds.",
         "record grip.csv --seconds 30",
         runRecord},
        {"plot",
         "FILE.csv",
         1,
         1,
         {"output"},
         "Draw a recording, with gnuplot.",
         "Needs no daemon.",
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
