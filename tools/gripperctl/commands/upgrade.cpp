#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "interruption.h"
#include "text.h"

#include <optional>

namespace gripperctl {

namespace {

using Stage = gripper::UpgradeStage;

/// Shows the stages of an upgrade, and keeps what its errors depend on.
class Progress
{
public:
    explicit Progress(Program &program)
        : m_program(program)
    {
    }

    void begin(Stage stage, int id)
    {
        m_stage = stage;
        m_untilReply.reset();
        switch (stage) {
        case Stage::Jumping:
            // The reply decides whether polling has to be unmuted.
            m_untilReply.emplace();
            m_program.output().begin(concat("gripper ", id, ": entering its bootloader"));
            break;
        case Stage::Writing:
            m_program.output().begin("writing the firmware");
            break;
        case Stage::Searching:
            m_program.output().begin("scanning the line");
            break;
        case Stage::Done:
            break;
        }
    }

    bool is(Stage stage) const { return m_stage == stage; }
    void allowInterruption() { m_untilReply.reset(); }

private:
    Program &m_program;
    std::optional<Stage> m_stage;
    std::optional<HeldInterruption> m_untilReply;
};

void refuseDuringUpgrade(const gripper::LineState &line)
{
    if (line.upgrading)
        throw Failure(ExitCode::Refused, "an upgrade is under way and has the line: wait until "
                                         "\"gripperctl get UPG\" prints 0");
}

void confirm(Program &program, const gripper::Image &image)
{
    program.output().confirm(
        concat("Write new firmware into gripper ", image.id, " (", image.firmware.value_or("?"),
               ", serial ", image.serialNumber.value_or("?"), ")? Do not switch it off meanwhile."),
        "an upgrade writes new firmware into the gripper");
}

/// Scans until the gripper is found, or three times.
std::string presentState(Program &program, int id)
{
    gripper::Line line = program.line();
    program.output().begin("scanning the line");
    constexpr int maxScans = 3;
    for (int scans = 0; scans < maxScans; ++scans) {
        if (scans > 0)
            program.pause(gripper::Seconds(1));
        const std::vector<int> found = line.scan();
        if (std::find(found.begin(), found.end(), id) != found.end()) {
            return concat("Polling continues, and gripper ", id, " runs firmware ",
                          line.gripper(id).get("FWV"));
        }
    }
    return concat("Polling continues, but gripper ", id,
                  " does not answer: switch it off and on, then run gripperctl scan");
}

/// After a refused jump, or a flasher that did not start.
[[noreturn]] void failUnbegun(Program &program, int id, const gripper::Refused &error)
{
    refuseDuringUpgrade(program.line().state());
    try {
        throwIfInterrupted();
    } catch (const Interrupted &) {
        throw Interrupted(concat("interrupted. ", error.what()));
    }
    std::string state;
    try {
        state = presentState(program, id);
    } catch (const gripper::Error &unknown) {
        // The message must still name the problem of the upgrade.
        state = concat("The state of the gripper is unknown: ", unknown.what());
    }
    const std::string problem = error.what();
    throw Failure(ExitCode::Refused, concat(problem, problem.back() == '?' ? " " : ". ", state));
}

std::string versionsText(const std::string &before, const std::string &after)
{
    return before == after ? concat("firmware ", after, ", as before")
                           : concat("firmware ", before, " -> ", after);
}

/// Returns the version afterwards.
std::string upgrade(Program &program, gripper::Gripper &gripper, const std::string &before,
                    const std::string &expected)
{
    const int id = gripper.id();
    Progress progress(program);
    try {
        return gripper.upgrade([&](Stage stage) { progress.begin(stage, id); }, expected,
                               program.timeoutOr(gripper::Gripper::upgradeTimeout));
    } catch (const Interrupted &) {
        if (!progress.is(Stage::Writing))
            throw;
        throw Interrupted("interrupted: the flasher continues, so do not switch the gripper off. "
                          "Polling continues when \"gripperctl get UPG\" prints 0");
    } catch (const gripper::Refused &error) {
        progress.allowInterruption();
        if (progress.is(Stage::Jumping))
            failUnbegun(program, id, error);
        if (!progress.is(Stage::Searching))
            throw;
        throw Failure(ExitCode::Refused,
                      concat("gripper ", id, " runs ", versionsText(before, gripper.get("FWV")),
                             ": see the messages of the flasher in the daemon's log (journalctl "
                             "--namespace=gripperd)"));
    } catch (const gripper::GripperMissing &error) {
        if (!progress.is(Stage::Searching))
            throw;
        throw Failure(ExitCode::NoGripper,
                      concat(error.what(),
                             ". See the daemon's log (journalctl --namespace=gripperd) and the "
                             "manual of romflasher"));
    }
}

void runUpgrade(Program &program, const CLI::App &command)
{
    gripper::Gripper gripper = program.gripper();
    const gripper::Image before = gripper.image();
    refuseDuringUpgrade(before.line);
    if (!isGiven(command, "--yes"))
        confirm(program, before);
    // The upgrade scans if another gripper may be in its bootloader.
    if (before.listed.size() > 1)
        program.output().begin("scanning the line");
    const std::string old = before.firmware.value_or("?");
    std::string present;
    program.muting([&] { present = upgrade(program, gripper, old, textOf(command, "--expect")); });
    program.output().result(concat("gripper ", gripper.id(), ": ", versionsText(old, present)),
                            {{"gripper", gripper.id()}, {"old", old}, {"new", present}});
}

} // namespace

void addUpgrade(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"upgrade", "Write the firmware of the gripper's family into the gripper.",
                    "The image is in the daemon's working directory. This takes about a "
                    "minute;\ndo not switch "
                    "the gripper off meanwhile.",
                    "upgrade --gripper 9 --yes"},
                   runUpgrade);
    addFlag(command, "--yes", "Do not ask for confirmation.");
    addText(command, "--expect", "VERSION",
            "Succeed if the gripper runs this firmware afterwards.");
}

} // namespace gripperctl
