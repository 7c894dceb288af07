#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "snapshot.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

std::vector<std::string> rowOf(const gripper::Image &image)
{
    return {std::to_string(image.id),
            familyOf(image),
            image.firmware.value_or("?"),
            image.serialNumber.value_or("?"),
            numberText(image.productionYear),
            statusText(image),
            numberText(image.position),
            objectText(image),
            faultText(image),
            numberText(image.cycles)};
}

std::string tableOf(const Snapshot &snapshot)
{
    if (snapshot.grippers.empty())
        return snapshot.ids().empty() ? "no grippers found"
                                      : "grippers found: " + listOfIds(snapshot.ids());
    std::vector<std::vector<std::string>> rows{{"ID", "FAMILY", "FIRMWARE", "SERIAL", "YEAR",
                                                "STATUS", "POS", "OBJECT", "FAULT", "CYCLES"}};
    for (const gripper::Image &image : snapshot.grippers)
        rows.push_back(rowOf(image));
    std::string text = join(tableLines(rows), "\n");
    if (snapshot.standstill != Standstill::No)
        text += "\nno new values: " + reasonOf(snapshot.standstill);
    return text;
}

void refuseIncomplete(const Snapshot &snapshot, const std::vector<int> &expected)
{
    const std::vector<int> listed = snapshot.ids();
    std::vector<int> missing;
    for (const int id : expected) {
        if (std::find(listed.begin(), listed.end(), id) == listed.end())
            missing.push_back(id);
    }
    if (!missing.empty()) {
        throw Failure(ExitCode::NoGripper,
                      concat("the daemon on ", snapshot.endpoint.text(), " does not list gripper ",
                             join(missing), " (listed: ", listOfIds(listed),
                             ", link: ", snapshot.link(), ')'),
                      snapshot.json());
    }
    if (snapshot.grippers.empty()) {
        throw Failure(ExitCode::NoGripper,
                      concat("the daemon on ", snapshot.endpoint.text(),
                             " has found no gripper (link: ", snapshot.link(),
                             "): are the grippers switched on, and is the line plugged in?"),
                      snapshot.json());
    }
}

void show(Program &program, const gripper::Endpoint &endpoint, const std::vector<int> &expected)
{
    const Snapshot snapshot = Snapshot::take(program, endpoint);
    const bool isOneOfSeveral = program.settings().endpoints.size() > 1;
    const std::string text =
        concat(isOneOfSeveral ? endpoint.text() + ": " : "", "driver ", snapshot.driver(),
               ", link ", snapshot.link(), '\n', tableOf(snapshot));
    const auto check = [&] {
        if (program.settings().gripper)
            refuseUnlisted(*program.settings().gripper, snapshot.ids(), snapshot.link());
        refuseIncomplete(snapshot, expected);
    };
    try {
        check();
    } catch (const Failure &) {
        program.output().partialResult(text);
        throw;
    }
    program.output().result(text, snapshot.json());
}

void runStatus(Program &program, const CLI::App &command)
{
    const std::vector<int> ids = idsFrom(textOf(command, "--expect"));
    program.forEachHost([&](const gripper::Endpoint &endpoint) { show(program, endpoint, ids); });
}

} // namespace

void addStatus(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"status", "Show the driver, its link, and every gripper found.",
         "With --gripper, show this gripper only. Several --host are possible.", "status --json"},
        runStatus);
    addText(command, "--expect", "ID,ID...", "Fail unless all these grippers are found.");
}

} // namespace gripperctl
