#include "commandwords.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace tools {

namespace {

/// The number of letters that have to be inserted, removed, replaced or swapped with the next one.
std::size_t distance(const std::string &left, const std::string &right)
{
    std::vector<std::vector<std::size_t>> costs(left.size() + 1,
                                                std::vector<std::size_t>(right.size() + 1));
    for (std::size_t row = 0; row <= left.size(); ++row) {
        for (std::size_t column = 0; column <= right.size(); ++column) {
            std::size_t &cost = costs[row][column];
            if (row == 0 || column == 0) {
                cost = row + column;
                continue;
            }
            const bool isSame = left[row - 1] == right[column - 1];
            cost = std::min({costs[row - 1][column] + 1, costs[row][column - 1] + 1,
                             costs[row - 1][column - 1] + (isSame ? 0 : 1)});
            if (row > 1 && column > 1 && left[row - 1] == right[column - 2] &&
                left[row - 2] == right[column - 1])
                cost = std::min(cost, costs[row - 2][column - 2] + 1);
        }
    }
    return costs.back().back();
}

} // namespace

CLI::App *findCommand(CLI::App &app, const std::string &name)
{
    const std::vector<CLI::App *> found =
        app.get_subcommands([&](CLI::App *command) { return command->get_name() == name; });
    return found.empty() ? nullptr : found.front();
}

std::vector<std::string> optionNames(const CLI::App &command)
{
    std::vector<std::string> names;
    for (const CLI::App *app = &command; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option *option : app->get_options()) {
            for (const std::string &name : option->get_lnames())
                names.push_back("--" + name);
        }
    }
    return names;
}

std::string suggestion(const std::string &word, const std::vector<std::string> &known)
{
    // In a short word, two different letters make another word.
    const std::size_t limit = word.size() > 3 ? 2 : 1;
    std::string text;
    for (const std::string &candidate : known) {
        if (distance(word, candidate) <= limit)
            text += (text.empty() ? "; did you mean " : " or ") + candidate;
    }
    return text.empty() ? text : text + '?';
}

} // namespace tools
