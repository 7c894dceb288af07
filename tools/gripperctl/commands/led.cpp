#include "commands.h"

#include "commandoptions.h"
#include "text.h"

#include <algorithm>
#include <memory>

namespace gripperctl {

namespace {

constexpr int maxColours = 3;

bool contains(const std::vector<std::string> &words, const char *word)
{
    return std::find(words.begin(), words.end(), word) != words.end();
}

void check(const std::vector<std::string> &words)
{
    const std::vector<std::string> colours{"red", "green", "blue"};
    const bool isAlone = words.size() == 1 && (contains(words, "auto") || contains(words, "off"));
    const bool isMixture = std::all_of(words.begin(), words.end(), [&](const std::string &word) {
        return contains(colours, word.c_str());
    });
    if (!isAlone && !isMixture)
        throw Failure(ExitCode::WrongUsage,
                      concat("led takes any of red, green and blue, or only off, or only auto, not "
                             "\"",
                             join(words, " "), '"'));
}

void run(Program &program, const std::vector<std::string> &words)
{
    check(words);
    gripper::Gripper gripper = program.gripper();
    if (contains(words, "auto"))
        gripper.ledAuto();
    else
        gripper.led(contains(words, "red"), contains(words, "green"), contains(words, "blue"));
    const std::string text = join(words, " ");
    program.output().result(concat("gripper ", gripper.id(), ": led ", text),
                            {{"gripper", gripper.id()}, {"led", text}});
}

} // namespace

void addLed(CLI::App &app, Program &program)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App &command =
        addCommand(app,
                   {"led", "Light the LED: red, green, blue; off; or auto.",
                    "Several colours mix. auto gives the LED back to the gripper.", "led red blue"},
                   [&program, words] { run(program, *words); });
    addWords(command, "COLOUR...", *words, 1, maxColours)->option_text("red green blue off auto");
}

} // namespace gripperctl
