#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <memory>

namespace gripperctl {

namespace {

void confirm(Program &program, const gripper::Image &image)
{
    program.output().confirm(concat("Gripper ", image.id, " (", familyOf(image),
                                    ") holds by vacuum: stopping lets its part fall. Stop it?"),
                             "stopping a vacuum gripper lets its part fall");
}

void run(Program &program, bool isConfirmed)
{
    gripper::Gripper gripper = program.gripper();
    if (!isConfirmed) {
        const gripper::Image before = gripper.image();
        if (isVacuum(before))
            confirm(program, before);
    }
    program.await(gripper.id(), "stopping", [&] { gripper.stop(); });
    const gripper::Image after = gripper.image();
    program.report(gripper.id(), concat("has stopped at ", numberText(after.position)),
                   {{"position", jsonOf(after.position)}});
}

} // namespace

void addStop(CLI::App &app, Program &program)
{
    const auto isConfirmed = std::make_shared<bool>(false);
    CLI::App &command = addCommand(
        app,
        {"stop", "Stop the fingers where they are.",
         "A vacuum gripper loses its vacuum, and its part falls: gripperctl asks first.", "stop"},
        [&program, isConfirmed] { run(program, *isConfirmed); });
    command.add_flag("--yes", *isConfirmed, "Do not ask for confirmation.");
}

} // namespace gripperctl
