#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <memory>

namespace gripperctl {

namespace {

constexpr gripper::Seconds lookInterval{0.03};

struct Choice
{
    bool wait = false;
    bool again = false;
};

/// Refuses an active gripper with a fault.
void reportActive(Program &program, const gripper::Image &image, const std::string &text)
{
    if (image.fault.value_or(0) == 0) {
        program.report(image.id, text,
                       {{"status", statusText(image)}, {"fault", jsonOf(image.fault)}});
        return;
    }
    throw Failure(ExitCode::Refused,
                  concat("gripper ", image.id, " is active, but has fault ", *image.fault,
                         ": see its manual; gripperctl activate --again clears the faults that "
                         "can be cleared"));
}

bool hasStatus(const gripper::Image &image, gripper::Status status)
{
    return image.status == static_cast<int>(status);
}

/// A second request would restart an activation that is under way.
void awaitActive(Program &program, gripper::Gripper &gripper)
{
    const gripper::Deadline end(program.timeoutOr(gripper::Gripper::movementTimeout));
    gripper::Image image = gripper.image();
    while (image.stale || !hasStatus(image, gripper::Status::Active)) {
        if (end.isOver())
            throw gripper::TimedOut(concat("gripper ", image.id, " is ", statusText(image),
                                           " after ", end.timeout().count(), " s"));
        program.pause(lookInterval);
        image = gripper.image();
    }
}

/// Returns when the gripper is active.
void activate(Program &program, gripper::Gripper &gripper, const Choice &choice, bool isUnderWay)
{
    const auto again = choice.again ? gripper::Again::Yes : gripper::Again::No;
    program.await(gripper.id(), "activating", [&] {
        if (isUnderWay)
            awaitActive(program, gripper);
        else
            gripper.activate(again, program.timeoutOr(gripper::Gripper::movementTimeout));
    });
}

void run(Program &program, const Choice &choice)
{
    gripper::Gripper gripper = program.gripper();
    const gripper::Image before = gripper.image();
    if (hasStatus(before, gripper::Status::Active) && !choice.again) {
        reportActive(program, before, "is active already");
        return;
    }
    const bool isUnderWay = hasStatus(before, gripper::Status::Activating) && !choice.again;
    // Without go-to, the gripper does not carry out an old request after the activation.
    if (isUnderWay && before.goTo.value_or(true))
        gripper.set({{"GTO", 0}});
    else if (!isUnderWay && !choice.wait)
        gripper.set({{"GTO", 0}, {"ACT", 1}});
    if (choice.wait) {
        activate(program, gripper, choice, isUnderWay);
        reportActive(program, gripper.image(), "is active");
        return;
    }
    // The values of the gripper are still old.
    program.report(gripper.id(), "was asked to activate");
}

} // namespace

void addActivate(CLI::App &app, Program &program)
{
    const auto choice = std::make_shared<Choice>();
    CLI::App &command =
        addCommand(app,
                   {"activate", "Make the gripper ready to move.",
                    "Fingers open fully during the activation, and stay open until the next "
                    "movement.\nAn active gripper stays as it is, unless --again is given.",
                    "activate --wait"},
                   [&program, choice] { run(program, *choice); });
    command.add_flag("--wait", choice->wait, "Wait for the end and print the result.");
    command.add_flag("--again", choice->again, "Activate again, even if the gripper is active.");
}

} // namespace gripperctl
