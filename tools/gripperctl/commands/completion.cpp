#include "completion.h"

#include "app.h"
#include "commands.h"

#include <memory>

namespace gripperctl {

namespace {

/// "WORD" or "WORD<tab>DESCRIPTION" lines.
void printCompletions(const CLI::App &app, Program &program, const std::vector<std::string> &words)
{
    std::string text;
    for (const Completion &offered :
         completionsOf(app, program.settings().endpoints.front(), words)) {
        text += offered.word;
        text += (offered.description.empty() ? "" : '\t' + offered.description) + '\n';
    }
    writeOut(text);
}

} // namespace

void addCompletion(CLI::App &app, Program &program)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *command = app.add_subcommand("completion", "Offer words to a shell.");
    command->group(""); // the shells alone call it
    command->add_option("words", *words);
    command->callback([&app, &program, words] { printCompletions(app, program, *words); });
}

} // namespace gripperctl
