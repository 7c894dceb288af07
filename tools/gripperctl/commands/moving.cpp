// The commands that a gripper carries out: activation, movements, release and LEDs.
#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

constexpr int maxColours = 3;
constexpr gripper::Seconds lookInterval{0.03};

using gripper::Gripper;
using gripper::Image;
using gripper::Status;

void addWaitFlag(CLI::App &command)
{
    addFlag(command, "--wait", "Wait for the end and print the result.");
}

// Activation

void reportActive(Program &program, const Image &image, const std::string &text)
{
    refuseFaulty(image);
    program.report(image.id, text, {{"status", statusText(image)}, {"fault", jsonOf(image.fault)}});
}

/// A second request would restart an activation that is under way.
void awaitActive(Program &program, Gripper &gripper)
{
    const gripper::Deadline end(program.timeoutOr(Gripper::movementTimeout));
    Image image = gripper.image();
    while (image.stale || !hasStatus(image, Status::Active)) {
        if (end.isOver())
            throw gripper::TimedOut(concat("gripper ", image.id, " is ", statusText(image),
                                           " after ", end.timeout().count(), " s"));
        program.pause(lookInterval);
        image = gripper.image();
    }
}

void activate(Program &program, const CLI::App &command)
{
    const bool isRepeated = isGiven(command, "--again");
    Gripper gripper = program.gripper();
    const Image before = gripper.image();
    if (hasStatus(before, Status::Active) && !isRepeated) {
        reportActive(program, before, "is active already");
        return;
    }
    const bool waits = isGiven(command, "--wait");
    const bool isUnderWay = hasStatus(before, Status::Activating) && !isRepeated;
    // Without go-to, the gripper does not carry out an old request after the activation.
    if (isUnderWay && before.goTo.value_or(true))
        gripper.set({{"GTO", 0}});
    else if (!isUnderWay && !waits)
        gripper.set({{"GTO", 0}, {"ACT", 1}});
    if (!waits) {
        // The values of the gripper are still old.
        program.report(gripper.id(), "was asked to activate");
        return;
    }
    program.await(gripper.id(), "activating", [&] {
        if (isUnderWay)
            awaitActive(program, gripper);
        else
            gripper.activate(isRepeated ? gripper::Again::Yes : gripper::Again::No,
                             program.timeoutOr(Gripper::movementTimeout));
    });
    reportActive(program, gripper.image(), "is active");
}

// Movements

void reportEnd(Program &program, const Image &before, int wanted, const gripper::MoveResult &result)
{
    const bool isReached = std::holds_alternative<gripper::Reached>(result);
    const auto [position, effort] =
        std::visit([](const auto &end) { return std::pair(end.position, end.effort); }, result);
    Image after = before;
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

void moveTo(Program &program, const CLI::App &command, int position)
{
    Gripper gripper = program.gripper();
    const Image before = gripper.image();
    if (!hasStatus(before, Status::Active)) {
        throw Failure(ExitCode::Refused,
                      concat("gripper ", before.id, " is ", statusText(before),
                             " and cannot move: run gripperctl activate --wait"));
    }
    const int speed = numberOf(command, "--speed").value_or(before.speed.value_or(0));
    const int force = numberOf(command, "--force").value_or(before.force.value_or(0));
    if (!isGiven(command, "--wait")) {
        gripper.set({{"POS", position}, {"SPE", speed}, {"FOR", force}, {"GTO", 1}});
        // The values of the gripper are still old.
        program.report(gripper.id(), concat("was asked to go to ", position),
                       {{"requestedPosition", position}});
        return;
    }
    gripper::MoveResult result;
    try {
        program.await(gripper.id(), concat("moving to ", position), [&] {
            result =
                gripper.move(position, speed, force, program.timeoutOr(Gripper::movementTimeout));
        });
    } catch (const gripper::Fault &fault) {
        throw Failure(ExitCode::Refused, concat(fault.what(), " (gripperctl activate --again)"));
    } catch (const Interrupted &) {
        throw Interrupted(concat("interrupted: gripper ", gripper.id(), " continues to ", position,
                                 ". gripperctl --gripper ", gripper.id(), " set GTO 0 stops it"));
    }
    reportEnd(program, before, position, result);
}

void moveToGiven(Program &program, const CLI::App &command)
{
    const std::string &word = wordsOf(command).front();
    const std::optional<int> position = numberFrom(word, 0, maxValue);
    if (!position)
        throw Failure(
            ExitCode::WrongUsage,
            concat("a position is a number from 0 (open) to 255 (closed), not \"", word, '"'));
    moveTo(program, command, *position);
}

CLI::App &addMovement(CLI::App &app, Program &program, const CommandText &text,
                      void (*run)(Program &, const CLI::App &))
{
    CLI::App &command = addCommand(app, program, text, run);
    addNumber(command, "--speed", 0, maxValue, "0 (slowest) to 255; without it, the last value.");
    addNumber(command, "--force", 0, maxValue, "0 (gentlest) to 255; without it, the last value.");
    addWaitFlag(command);
    return command;
}

void stop(Program &program, const CLI::App &command)
{
    Gripper gripper = program.gripper();
    if (!isGiven(command, "--yes")) {
        const Image before = gripper.image();
        if (isVacuum(before)) {
            program.output().confirm(
                concat("Gripper ", before.id, " (", familyOf(before),
                       ") holds by vacuum: stopping lets its part fall. Stop it?"),
                "stopping a vacuum gripper lets its part fall");
        }
    }
    program.await(gripper.id(), "stopping", [&] { gripper.stop(); });
    const Image after = gripper.image();
    program.report(gripper.id(), concat("has stopped at ", numberText(after.position)),
                   {{"position", jsonOf(after.position)}});
}

void release(Program &program, const CLI::App &command)
{
    const bool closes = isGiven(command, "--closing");
    Gripper gripper = program.gripper();
    if (hasStatus(gripper.image(), Status::Inactive)) {
        throw Failure(
            ExitCode::Refused,
            concat("gripper ", gripper.id(),
                   " is inactive and cannot let go: gripperctl activate --wait opens it"));
    }
    std::string text = "was asked to let go";
    if (isGiven(command, "--wait")) {
        program.await(gripper.id(), "letting go", [&] {
            gripper.release(closes, program.timeoutOr(Gripper::movementTimeout));
        });
        text = concat("has let go and is at ", numberText(gripper.image().position));
    } else {
        gripper.set({{"ARD", closes ? 1 : 0}, {"ATR", 1}});
    }
    program.report(gripper.id(), text + "; it takes no movement until gripperctl activate");
}

// LEDs

void lightLed(Program &program, const CLI::App &command)
{
    const std::vector<std::string> &words = wordsOf(command);
    const auto has = [&](const char *word) {
        return std::find(words.begin(), words.end(), word) != words.end();
    };
    const auto isColour = [](const std::string &word) {
        return word == "red" || word == "green" || word == "blue";
    };
    const std::string text = join(words, " ");
    if (text != "auto" && text != "off" && !std::all_of(words.begin(), words.end(), isColour)) {
        throw Failure(ExitCode::WrongUsage,
                      concat("led takes any of red, green and blue, or only off, or only auto, not "
                             "\"",
                             text, '"'));
    }
    Gripper gripper = program.gripper();
    if (has("auto"))
        gripper.ledAuto();
    else
        gripper.led(has("red"), has("green"), has("blue"));
    program.output().result(concat("gripper ", gripper.id(), ": led ", text),
                            {{"gripper", gripper.id()}, {"led", text}});
}

} // namespace

void addActivate(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"activate", "Make the gripper ready to move.",
                    "Fingers open fully during the activation, and stay open until the next "
                    "movement.\nAn active gripper stays as it is, unless --again is given.",
                    "activate --wait"},
                   activate);
    addWaitFlag(command);
    addFlag(command, "--again", "Activate again, even if the gripper is active.");
}

void addMove(CLI::App &app, Program &program)
{
    CLI::App &command = addMovement(
        app, program,
        {"move", "Go to a position of 0 (open) to 255.",
         "With --wait, the result says whether the gripper reached the position or met an object.",
         "move 120 --speed 100 --force 20 --wait"},
        moveToGiven);
    addWords(command, "POSITION", 1, 1);
}

void addOpen(CLI::App &app, Program &program)
{
    addMovement(app, program, {"open", "Go to position 0.", "The same as move 0.", "open --wait"},
                [](Program &used, const CLI::App &command) {
                    moveTo(used, command, Gripper::openPosition);
                });
}

void addClose(CLI::App &app, Program &program)
{
    addMovement(
        app, program,
        {"close", "Go to position 255.", "The same as move 255.", "close --force 50 --wait"},
        [](Program &used, const CLI::App &command) {
            moveTo(used, command, Gripper::closedPosition);
        });
}

void addStop(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"stop", "Stop the fingers where they are.",
         "A vacuum gripper loses its vacuum, and its part falls: gripperctl asks first.", "stop"},
        stop);
    addFlag(command, "--yes", "Do not ask for confirmation.");
}

void addRelease(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"release", "Let go slowly, even if an object is in the way.",
                    "For a robot that is stuck. Afterwards the gripper moves only when it is "
                    "activated again.",
                    "release"},
                   release);
    addFlag(command, "--closing", "Release by closing instead of opening.");
    addWaitFlag(command);
}

void addLed(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"led", "Light the LED: red, green, blue; off; or auto.",
                    "Several colours mix. auto gives the LED back to the gripper.", "led red blue"},
                   lightLed);
    addWords(command, "COLOUR...", 1, maxColours, "red green blue off auto");
}

} // namespace gripperctl
