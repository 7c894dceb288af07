#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "snapshot.h"
#include "text.h"

namespace gripperctl {

namespace {

constexpr gripper::Seconds scanTimeout{60};

std::string lineOf(const gripper::Image &image)
{
    std::string family = familyOf(image);
    family.resize(6, ' ');
    return concat(image.id, "  ", family, "  ", image.firmware.value_or("?"), "  serial ",
                  image.serialNumber.value_or("?"));
}

void runScan(Program &program, const CLI::App & /*command*/)
{
    program.output().begin("scanning the line");
    program.line().scan(program.timeoutOr(scanTimeout));
    const Snapshot snapshot = Snapshot::take(program, program.endpoint());
    if (snapshot.grippers.empty()) {
        throw Failure(ExitCode::NoGripper,
                      concat("no grippers found (link ", snapshot.link(),
                             "): are they switched on, and is the line plugged in?"),
                      snapshot.json());
    }
    std::vector<std::string> lines;
    lines.reserve(snapshot.grippers.size());
    for (const gripper::Image &image : snapshot.grippers)
        lines.push_back(lineOf(image));
    program.output().result(join(lines, "\n"), snapshot.json());
}

} // namespace

void addScan(CLI::App &app, Program &program)
{
    addCommand(app, program,
               {"scan", "Look for grippers again, and show those found.",
                "A scan takes one or two seconds. Polling pauses during the scan.", "scan"},
               runScan);
}

} // namespace gripperctl
