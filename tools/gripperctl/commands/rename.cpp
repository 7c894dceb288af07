#include "commands.h"

#include "commandoptions.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

int idFrom(const std::string &word)
{
    const std::optional<int> id = numberFrom(word, minId, maxId);
    if (!id)
        throw Failure(ExitCode::WrongUsage,
                      concat("an id is a number from 1 to 9, not \"", word, '"'));
    return *id;
}

int newIdFrom(const std::string &word)
{
    const std::vector<int> ids(gripper::Line::scannedIds.begin(), gripper::Line::scannedIds.end());
    const int id = idFrom(word);
    if (std::find(ids.begin(), ids.end(), id) == ids.end())
        throw Failure(ExitCode::WrongUsage, concat("a new id is one of ", join(ids), ", not ", id,
                                                   ": no scan would find the gripper again"));
    return id;
}

void runRename(Program &program, const CLI::App &command)
{
    const std::vector<std::string> &words = wordsOf(command);
    const int from = idFrom(words.front());
    const int to = newIdFrom(words.back());
    gripper::Line line = program.line();
    line.image();
    program.output().begin(
        concat("gripper ", from, ": scanning, storing id ", to, ", restarting (about 10 s)"));
    try {
        program.muting(
            [&] { line.rename(from, to, program.timeoutOr(gripper::Line::renameTimeout)); });
    } catch (const Interrupted &) {
        throw Interrupted("interrupted: gripperd continues the renaming, if it has begun. In ten "
                          "seconds, gripperctl scan shows the id of the gripper");
    }
    const std::string serialNumber = line.gripper(to).get("SNU");
    program.output().result(
        concat("gripper ", from, " (serial ", serialNumber, ") is gripper ", to, " now"),
        {{"old", from}, {"new", to}, {"serialNumber", serialNumber}});
}

} // namespace

void addRename(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"rename", "Give a gripper another id: 9, 2, 3 or 4.",
         "This takes about ten seconds. Other ids are refused, because no scan looks for them.",
         "rename 9 2"},
        runRename);
    const auto &ids = gripper::Line::scannedIds;
    addWords(command, "OLD NEW", 2, 2, join(std::vector<int>(ids.begin(), ids.end()), " "));
}

} // namespace gripperctl
