#include "commands.h"

#include "commandoptions.h"
#include "text.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <string_view>
#include <utility>

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

/// Names and their values, in the order of the request. A name that is given twice is there once.
using Values = std::vector<std::pair<std::string, std::string>>;

std::string textOf(const Values &values)
{
    if (values.size() == 1)
        return values.front().second;
    std::vector<std::string> lines;
    lines.reserve(values.size());
    for (const auto &[name, value] : values)
        lines.push_back(concat(name, ' ', value));
    return join(lines, "\n");
}

Json jsonOf(const Values &values)
{
    Json json;
    for (const auto &[name, value] : values)
        json[name] = value;
    return json;
}

void keep(Values &values, std::string_view name, std::string_view value)
{
    const auto known = std::find_if(values.begin(), values.end(),
                                    [&](const auto &entry) { return entry.first == name; });
    if (known == values.end())
        values.emplace_back(name, value);
    else
        known->second = value;
}

Values read(Program &program, const std::vector<std::string> &names)
{
    gripper::Batch batch;
    for (const std::string &name : names)
        batch.get(name);
    std::optional<int> id;
    if (std::any_of(names.begin(), names.end(), needsGripper))
        id = program.listedGripperId();
    gripper::Connection connection(program.endpoint(), program.options(), id);
    Values values;
    for (const gripper::Reply &reply :
         connection.exchange(batch, gripper::Deadline(connection.options().timeout)))
        keep(values, reply.name, reply.value);
    return values;
}

void run(Program &program, std::vector<std::string> names)
{
    std::transform(names.begin(), names.end(), names.begin(), upper);
    const Values values = read(program, names);
    for (const auto &[name, value] : values) {
        if (value != "?")
            continue;
        const std::vector<std::string> known = knownNames();
        const bool isKnown = std::find(known.begin(), known.end(), name) != known.end();
        program.output().partialResult(textOf(values));
        throw Failure(ExitCode::Refused,
                      concat("gripperd has no value of ", name,
                             isKnown ? ": does the gripper answer (gripperctl status)?"
                                     : ": no variable has this name" + suggestion(name, known)),
                      jsonOf(values));
    }
    program.output().result(textOf(values), jsonOf(values));
}

} // namespace

void addGet(CLI::App &app, Program &program)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App &command = addCommand(
        app,
        {"get", "Read values of the protocol.",
         "For one name, print only the value; for several names, a line \"NAME VALUE\" for each.",
         "get POS OBJ"},
        [&program, words] { run(program, *words); });
    addWords(command, "NAME...", *words, 1, std::numeric_limits<int>::max())
        ->option_text(join(knownNames(), " "));
}

} // namespace gripperctl
