#include "commands.h"

#include "commandoptions.h"
#include "doctor/bundle.h"
#include "doctor/report.h"
#include "snapshot.h"
#include "text.h"

#include <memory>

namespace gripperctl {

namespace {

// All checks take less than 5 s, whatever hangs.
constexpr gripper::Seconds answerTimeout{1};

struct DoctorOptions
{
    std::string expected;
    std::string bundle;
};

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

void run(Program &program, const DoctorOptions &options)
{
    const std::vector<int> expected = idsFrom(options.expected);
    if (!options.bundle.empty())
        doctor::refuseExisting(options.bundle);
    program.settings().timeout = program.timeoutOr(answerTimeout);
    const gripper::Endpoint &endpoint = program.endpoint();
    const doctor::Reply reply = doctor::ask(endpoint, program.options());
    const doctor::Facts facts = doctor::gather(doctor::Machine(), endpoint, reply, expected);
    const doctor::Report report(facts);
    Json json = report.json();
    std::string text = report.text();
    if (!options.bundle.empty()) {
        doctor::writeBundle(facts, json, statusOf(program, reply), options.bundle);
        json["bundle"] = options.bundle;
        text += concat("\nwrote ", options.bundle, "; read it before you send it");
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
    const auto options = std::make_shared<DoctorOptions>();
    CLI::App &command = addCommand(
        app,
        {"doctor", "Look for the cause of a fault: service, ports, adapters, grippers.",
         "Changes nothing and opens no serial port. Use sudo to see the processes of other users.",
         "doctor --expect 2,9 --bundle support.tar.gz"},
        [&program, options] { run(program, *options); });
    command
        .add_option("--expect", options->expected,
                    "Report a problem unless all these grippers are found.")
        ->type_name("ID,ID...");
    command
        .add_option("--bundle", options->bundle,
                    "Also pack the findings, the log and the settings for support (.tar.gz).")
        ->type_name("FILE")
        ->option_text(filesOffered);
}

} // namespace gripperctl
