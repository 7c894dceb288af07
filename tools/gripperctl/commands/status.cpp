#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "snapshot.h"
#include "text.h"

#include <algorithm>
#include <memory>

namespace gripperctl {

namespace {

constexpr int maxId = 9;

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
        return "no grippers found";
    std::vector<std::vector<std::string>> rows{{"ID", "FAMILY", "FIRMWARE", "SERIAL", "YEAR",
                                                "STATUS", "POS", "OBJECT", "FAULT", "CYCLES"}};
    for (const gripper::Image &image : snapshot.grippers)
        rows.push_back(rowOf(image));
    return join(tableLines(rows), "\n");
}

std::vector<int> idsFrom(const std::string &list)
{
    std::vector<int> ids;
    for (const std::string &word : CLI::detail::split(list, ',')) {
        const std::optional<int> id = numberFrom(word, 1, maxId);
        if (!id)
            throw Failure(ExitCode::WrongUsage,
                          concat("--expect takes ids such as 2,9, not \"", list, '"'));
        ids.push_back(*id);
    }
    return ids;
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

} // namespace

void addStatus(CLI::App &app, Program &program)
{
    const auto expected = std::make_shared<std::string>();
    const auto run = [&program, expected] {
        const std::vector<int> ids = expected->empty() ? std::vector<int>() : idsFrom(*expected);
        program.forEachHost(
            [&](const gripper::Endpoint &endpoint) { show(program, endpoint, ids); });
    };
    CLI::App &command = addCommand(
        app,
        {"status", "Show the driver, its link, and every gripper found.",
         "With --gripper, show this gripper only. Several --host are possible.", "status --json"},
        run);
    command.add_option("--expect", *expected, "Fail unless all these grippers are found.")
        ->type_name("ID,ID...");
}

} // namespace gripperctl
