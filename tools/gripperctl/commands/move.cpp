#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <memory>

namespace gripperctl {

namespace {

constexpr int maxValue = 255;

struct Choice
{
    std::string position;
    std::optional<int> speed;
    std::optional<int> force;
    bool wait = false;
};

void refuseInactive(const gripper::Image &image)
{
    if (image.status == static_cast<int>(gripper::Status::Active))
        return;
    throw Failure(ExitCode::Refused, concat("gripper ", image.id, " is ", statusText(image),
                                            " and cannot move: run gripperctl activate --wait"));
}

void printEnd(Program &program, const gripper::Image &before, int wanted,
              const gripper::MoveResult &result)
{
    const bool isReached = std::holds_alternative<gripper::Reached>(result);
    const auto [position, effort] =
        std::visit([](const auto &end) { return std::pair(end.position, end.effort); }, result);
    gripper::Image after = before;
    after.object = static_cast<int>(isReached ? gripper::Object::Reached : gripper::Object::Met);
    std::string text = concat("reached ", position);
    if (!isReached && isVacuum(before))
        text = concat("leaks: level ", position, " instead of ", wanted);
    else if (!isReached)
        text = concat("met an object at ", position, ", on its way to ", wanted);
    program.report(before.id, text,
                   {{"requestedPosition", wanted},
                    {"position", position},
                    {"object", objectText(after)},
                    {"current", effort}});
}

/// Moves and waits for the end.
gripper::MoveResult moveToEnd(Program &program, gripper::Gripper &gripper, int position, int speed,
                              int force)
{
    gripper::MoveResult result;
    try {
        program.await(gripper.id(), concat("moving to ", position), [&] {
            result = gripper.move(position, speed, force,
                                  program.timeoutOr(gripper::Gripper::movementTimeout));
        });
    } catch (const gripper::Fault &fault) {
        throw Failure(ExitCode::Refused, concat(fault.what(), " (gripperctl activate --again)"));
    } catch (const Interrupted &) {
        throw Interrupted(concat("interrupted: gripper ", gripper.id(), " continues to ", position,
                                 ". gripperctl --gripper ", gripper.id(), " set GTO 0 stops it"));
    }
    return result;
}

void moveTo(Program &program, const Choice &choice, int position)
{
    gripper::Gripper gripper = program.gripper();
    const gripper::Image before = gripper.image();
    refuseInactive(before);
    const int speed = choice.speed.value_or(before.speed.value_or(0));
    const int force = choice.force.value_or(before.force.value_or(0));
    if (choice.wait) {
        const auto result = moveToEnd(program, gripper, position, speed, force);
        printEnd(program, before, position, result);
        return;
    }
    gripper.set({{"POS", position}, {"SPE", speed}, {"FOR", force}, {"GTO", 1}});
    // The values of the gripper are still old.
    program.report(gripper.id(), concat("was asked to go to ", position),
                   {{"requestedPosition", position}});
}

void moveToGiven(Program &program, const Choice &choice)
{
    const std::optional<int> position = numberFrom(choice.position, 0, maxValue);
    if (!position)
        throw Failure(ExitCode::WrongUsage,
                      concat("a position is a number from 0 (open) to 255 (closed), not \"",
                             choice.position, '"'));
    moveTo(program, choice, *position);
}

void addOptions(CLI::App &command, Choice &choice)
{
    addNumber(command, "--speed", choice.speed, 0, maxValue,
              "0 (slowest) to 255; without it, the last value.");
    addNumber(command, "--force", choice.force, 0, maxValue,
              "0 (gentlest) to 255; without it, the last value.");
    command.add_flag("--wait", choice.wait, "Wait for the end and print the result.");
}

void addMovement(CLI::App &app, Program &program, const CommandText &text, int position)
{
    const auto choice = std::make_shared<Choice>();
    addOptions(
        addCommand(app, text, [&program, choice, position] { moveTo(program, *choice, position); }),
        *choice);
}

} // namespace

void addMove(CLI::App &app, Program &program)
{
    const auto choice = std::make_shared<Choice>();
    CLI::App &command = addCommand(
        app,
        {"move", "Go to a position of 0 (open) to 255.",
         "With --wait, the result says whether the gripper reached the position or met an object.",
         "move 120 --speed 100 --force 20 --wait"},
        [&program, choice] { moveToGiven(program, *choice); });
    addWord(command, "POSITION", choice->position);
    addOptions(command, *choice);
}

void addOpen(CLI::App &app, Program &program)
{
    addMovement(app, program, {"open", "Go to position 0.", "The same as move 0.", "open --wait"},
                gripper::Gripper::openPosition);
}

void addClose(CLI::App &app, Program &program)
{
    addMovement(
        app, program,
        {"close", "Go to position 255.", "The same as move 255.", "close --force 50 --wait"},
        gripper::Gripper::closedPosition);
}

} // namespace gripperctl
