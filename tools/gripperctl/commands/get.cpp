#include "commands.h"

#include "commandoptions.h"
#include "commandwords.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

std::vector<std::string> knownNames()
{
    std::vector<std::string> names;
    names.reserve(gripper::getVariables.size());
    for (const gripper::GetVariable &row : gripper::getVariables)
        names.emplace_back(row.name);
    return names;
}

/// Also true for unknown names.
bool needsGripper(const std::string &name)
{
    const auto &rows = gripper::getVariables;
    return std::none_of(rows.begin(), rows.end(), [&](const gripper::GetVariable &row) {
        return row.name == name && !row.needsGripper;
    });
}

std::string repliesIn(const Json &values)
{
    if (values.size() == 1)
        return values.front().get<std::string>();
    std::vector<std::string> lines;
    lines.reserve(values.size());
    for (const auto &[name, value] : values.items())
        lines.push_back(name + ' ' + value.get<std::string>());
    return join(lines, "\n");
}

Json read(Program &program, const std::vector<std::string> &names)
{
    gripper::Batch batch;
    for (const std::string &name : names)
        batch.get(name);
    std::optional<int> id;
    if (std::any_of(names.begin(), names.end(), needsGripper))
        id = program.listedGripperId();
    gripper::Connection connection(program.endpoint(), program.options(), id);
    Json values;
    for (const gripper::Reply &reply :
         connection.exchange(batch, gripper::Deadline(connection.options().timeout)))
        values[std::string(reply.name)] = reply.value;
    return values;
}

void runGet(Program &program, const CLI::App &command)
{
    std::vector<std::string> names = wordsOf(command);
    std::transform(names.begin(), names.end(), names.begin(), upper);
    const Json values = read(program, names);
    for (const auto &[name, value] : values.items()) {
        if (value != "?")
            continue;
        const std::vector<std::string> known = knownNames();
        const bool isKnown = std::find(known.begin(), known.end(), name) != known.end();
        program.output().partialResult(repliesIn(values));
        throw Failure(ExitCode::Refused,
                      concat("gripperd has no value of ", name,
                             isKnown
                                 ? ": does the gripper answer (gripperctl status)?"
                                 : ": no variable has this name" + tools::suggestion(name, known)),
                      values);
    }
    program.output().result(repliesIn(values), values);
}

} // namespace

void addGet(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"get", "Read values of the protocol.",
         "For one name, print only the value; for several names, a line \"NAME VALUE\" for each.",
         "get POS OBJ"},
        runGet);
    addWords(command, "NAME...", 1, manyWords, join(knownNames(), " "));
}

} // namespace gripperctl
