#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <memory>

namespace gripperctl {

namespace {

struct Choice
{
    bool closing = false;
    bool wait = false;
};

void run(Program &program, const Choice &choice)
{
    gripper::Gripper gripper = program.gripper();
    if (gripper.image().status == static_cast<int>(gripper::Status::Inactive)) {
        throw Failure(
            ExitCode::Refused,
            concat("gripper ", gripper.id(),
                   " is inactive and cannot let go: gripperctl activate --wait opens it"));
    }
    std::string text = "was asked to let go";
    if (choice.wait) {
        program.await(gripper.id(), "letting go", [&] {
            gripper.release(choice.closing, program.timeoutOr(gripper::Gripper::movementTimeout));
        });
        text = concat("has let go and is at ", numberText(gripper.image().position));
    } else {
        gripper.set({{"ARD", choice.closing ? 1 : 0}, {"ATR", 1}});
    }
    program.output().result(concat("gripper ", gripper.id(), ' ', text,
                                   "; it takes no movement until gripperctl "
                                   "activate"),
                            {{"gripper", gripper.id()}, {"text", text}});
}

} // namespace

void addRelease(CLI::App &app, Program &program)
{
    const auto choice = std::make_shared<Choice>();
    CLI::App &command = addCommand(
        app,
        {"release", "Let go slowly, even if an object is in the way.",
         "For a robot that is stuck. Afterwards the gripper moves only when it is activated again.",
         "release"},
        [&program, choice] { run(program, *choice); });
    command.add_flag("--closing", choice->closing, "Release by closing instead of opening.");
    command.add_flag("--wait", choice->wait, "Wait for the end and print the result.");
}

} // namespace gripperctl
