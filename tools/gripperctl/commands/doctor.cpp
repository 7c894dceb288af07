#include "commands.h"

#include "commandoptions.h"
#include "doctor/bundle.h"
#include "doctor/report.h"
#include "snapshot.h"
#include "text.h"

namespace gripperctl {

namespace {

// All checks take less than 5 s, whatever hangs.
constexpr gripper::Seconds checkTimeout{1};

/// The result of gripperctl status --json.
Json statusOf(Program &program, const doctor::Reply &reply)
{
    if (!reply.isAnswered())
        return {{"error", reply.problem}};
    try {
        return Snapshot::take(program, program.endpoint()).json();
    } catch (const gripper::CommunicationError &error) {
        return {{"error", error.what()}};
    }
}

void runDoctor(Program &program, const CLI::App &command)
{
    const std::vector<int> expected = idsFrom(textOf(command, "--expect"));
    const std::string bundle = textOf(command, "--bundle");
    if (!bundle.empty())
        doctor::refuseExisting(bundle);
    program.settings().timeout = program.timeoutOr(checkTimeout);
    const gripper::Endpoint &endpoint = program.endpoint();
    const doctor::Reply reply = doctor::ask(endpoint, program.options());
    const doctor::Facts facts = doctor::gather(doctor::Machine(), endpoint, reply, expected);
    const doctor::Report report(facts);
    Json json = report.json();
    std::string text = report.text();
    if (!bundle.empty()) {
        doctor::writeBundle(facts, json, statusOf(program, reply), bundle);
        json["bundle"] = bundle;
        text += concat("\nwrote ", bundle, "; read it before you send it");
    }
    const std::vector<std::string> problems = report.problems();
    if (problems.empty()) {
        program.output().result(text, json);
        return;
    }
    program.output().partialResult(text);
    throw Failure(ExitCode::Refused, concat("problems found: ", join(problems)), json);
}

} // namespace

void addDoctor(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"doctor", "Look for the cause of a fault: service, ports, adapters, grippers.",
         "Changes nothing and opens no serial port. Use sudo to see the processes of other users.",
         "doctor --expect 2,9 --bundle support.tar.gz"},
        runDoctor);
    addText(command, "--expect", "ID,ID...",
            "Report a problem unless all these grippers are found.");
    addText(command, "--bundle", "FILE",
            "Also pack the findings, the log and the settings for support (.tar.gz).",
            filesOffered);
}

} // namespace gripperctl
