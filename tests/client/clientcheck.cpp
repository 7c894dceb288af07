// Calls libgripper as its standard input says, for the tests: a command is a line of words. Each
// answer ends with a line "ok RESULT" or "error TYPE: TEXT". "unknown: SET ..." in the text is what
// CommunicationError::unknown() returns.
#include <gripper/gripper.h>
#include <gripper/line.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

class WrongCommand : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

template <typename Number>
std::string textOf(const std::optional<Number> &value)
{
    return value ? std::to_string(*value) : "none";
}

std::string textOf(const std::optional<std::string> &value)
{
    return value.value_or("none");
}

std::string textOf(const std::vector<int> &ids)
{
    std::string text = "[";
    for (const int id : ids)
        text += (text.size() > 1 ? ", " : "") + std::to_string(id);
    return text + "]";
}

std::string textOf(const std::optional<std::vector<int>> &ids)
{
    return ids ? textOf(*ids) : "none";
}

template <typename Values>
std::string valuesOf(const Values &values)
{
    std::string text;
    gripper::forEachValue(values, [&](std::string_view name, const auto &value) {
        text += std::string(name) + '=' + textOf(value) + ';';
    });
    return text;
}

std::string textOf(const gripper::Image &image)
{
    return valuesOf(image) + "id=" + std::to_string(image.id) + ";line=" + image.line.text +
           ";present=" + std::to_string(int(image.present)) +
           ";stale=" + std::to_string(int(image.stale)) + ";listed=" + textOf(image.listed);
}

std::string textOf(const gripper::MoveResult &result)
{
    return std::visit(
        [](const auto &end) {
            return std::string(end.reached ? "Reached " : "ObjectMet ") +
                   std::to_string(end.position) + ' ' + std::to_string(end.effort) +
                   (end.stalled ? " stalled" : "");
        },
        result);
}

std::string textOf(const gripper::WatchItem &item)
{
    if (const auto *image = std::get_if<gripper::Image>(&item))
        return "image " + textOf(*image);
    const auto &outage = std::get<gripper::Outage>(item);
    static constexpr const char *reasons[] = {"NoConnection", "LinkDown", "Missing"};
    const std::chrono::duration<double> age = outage.time.monotonic - outage.since.monotonic;
    return std::string("outage ") + reasons[static_cast<std::size_t>(outage.reason)] + ' ' +
           std::to_string(outage.id) + ' ' + std::to_string(age.count()) + ' ' + outage.text;
}

std::string textOf(gripper::UpgradeStage stage)
{
    static constexpr const char *names[] = {"jumping", "writing", "searching", "done"};
    return names[static_cast<std::size_t>(stage)];
}

class Program
{
public:
    std::string run(const std::string &command, const Words &words);

private:
    gripper::Line &line() { return *m_line; }
    gripper::Gripper &gripper() { return m_gripper.value(); }
    static int number(const Words &words, std::size_t position, int otherwise = 0);
    static gripper::Seconds seconds(const Words &words, std::size_t position, double otherwise);
    static std::vector<int> ids(const Words &words);
    static std::vector<gripper::Pair> pairs(const Words &words);
    std::string watch(gripper::Watch watch, int count);
    std::string commandGripper(const std::string &command, const Words &words);
    std::string commandLine(const std::string &command, const Words &words);

    std::optional<gripper::Line> m_line = gripper::Line();
    std::optional<gripper::Gripper> m_gripper;
    std::optional<gripper::Maintenance> m_maintenance;
};

int Program::number(const Words &words, std::size_t position, int otherwise)
{
    return position < words.size() ? std::stoi(words[position]) : otherwise;
}

gripper::Seconds Program::seconds(const Words &words, std::size_t position, double otherwise)
{
    return gripper::Seconds(position < words.size() ? std::stod(words[position]) : otherwise);
}

std::vector<int> Program::ids(const Words &words)
{
    std::vector<int> found;
    for (const std::string &word : words)
        found.push_back(std::stoi(word));
    return found;
}

std::vector<gripper::Pair> Program::pairs(const Words &words)
{
    std::vector<gripper::Pair> found;
    for (std::size_t i = 0; i + 1 < words.size(); i += 2)
        found.emplace_back(words[i], std::stoi(words[i + 1]));
    return found;
}

std::string Program::watch(gripper::Watch watch, int count)
{
    for (const gripper::WatchItem &item : watch) {
        std::cout << textOf(item) << std::endl;
        if (--count == 0)
            break;
    }
    return {};
}

std::string Program::commandLine(const std::string &command, const Words &words)
{
    if (command == "line")
        m_line.emplace(words.at(0), number(words, 1, gripper::Endpoint::defaultPort),
                       gripper::Options{seconds(words, 2, 5), {}});
    else if (command == "grippers")
        return textOf(line().grippers());
    else if (command == "state")
        return line().state().text + (line().state().running ? " running" : "") +
               (line().state().scanning ? " scanning" : "") +
               (line().state().upgrading ? " upgrading" : "");
    else if (command == "line-image")
        return valuesOf(line().image());
    else if (command == "scan")
        return textOf(line().scan());
    else if (command == "wait-until-running")
        line().waitUntilRunning(ids(Words(words.begin() + 1, words.end())), seconds(words, 0, 30));
    else if (command == "gripper")
        m_gripper.emplace(line().gripper(number(words, 0)));
    else if (command == "watch-line")
        return watch(line().watch(ids(Words(words.begin() + 2, words.end())), std::stod(words[1])),
                     number(words, 0));
    else if (command == "rename")
        line().rename(number(words, 0), number(words, 1), seconds(words, 2, 60));
    else if (command == "maintenance")
        m_maintenance.emplace(line().maintenance());
    else if (command == "end-maintenance")
        m_maintenance->end();
    else if (command == "leave-maintenance")
        m_maintenance.reset();
    else
        throw WrongCommand(command);
    return {};
}

std::string Program::commandGripper(const std::string &command, const Words &words)
{
    if (command == "image")
        return textOf(gripper().image());
    if (command == "activate")
        gripper().activate(words.empty() ? gripper::Again::No : gripper::Again::Yes);
    else if (command == "deactivate")
        gripper().deactivate();
    else if (command == "move")
        return textOf(gripper().move(number(words, 0), number(words, 1), number(words, 2),
                                     seconds(words, 3, 30)));
    else if (command == "open")
        return textOf(gripper().open());
    else if (command == "close")
        return textOf(gripper().close());
    else if (command == "stop")
        gripper().stop();
    else if (command == "release")
        gripper().release(!words.empty());
    else if (command == "led")
        gripper().led(words.at(0) == "1", words.at(1) == "1", words.at(2) == "1");
    else if (command == "led-auto")
        gripper().ledAuto();
    else if (command == "set")
        gripper().set(pairs(words));
    else if (command == "get")
        return gripper().get(words.at(0));
    else if (command == "watch")
        return watch(gripper().watch(std::stod(words.at(1))), number(words, 0));
    else if (command == "upgrade")
        return gripper().upgrade(
            [](gripper::UpgradeStage stage) { std::cout << textOf(stage) << std::endl; },
            words.empty() ? "" : words[0]);
    else
        return commandLine(command, words);
    return {};
}

std::string Program::run(const std::string &command, const Words &words)
{
    const auto failed = [](const char *type, const gripper::Error &error) {
        return std::string("error ") + type + ": " + error.what();
    };
    const auto lost = [&](const char *type, const gripper::CommunicationError &error) {
        return failed(type, error) + " unknown: " + error.unknown();
    };
    try {
        return "ok " + commandGripper(command, words);
    } catch (const gripper::ConnectionLost &error) {
        return lost("ConnectionLost", error);
    } catch (const gripper::TimedOut &error) {
        return lost("TimedOut", error);
    } catch (const gripper::ProtocolError &error) {
        return lost("ProtocolError", error);
    } catch (const gripper::Refused &error) {
        return failed("Refused", error);
    } catch (const gripper::GripperMissing &error) {
        return failed("GripperMissing", error) + " id: " + std::to_string(error.id());
    } catch (const gripper::NotActive &error) {
        return failed("NotActive", error) + " status: " + std::to_string(error.status());
    } catch (const gripper::Fault &error) {
        return failed("Fault", error) + " code: " + std::to_string(error.code());
    } catch (const gripper::Interference &error) {
        return failed("Interference", error);
    } catch (const gripper::InvalidValue &error) {
        return failed("InvalidValue", error);
    }
}

} // namespace

int main()
{
    Program program;
    std::string text;
    while (std::getline(std::cin, text)) {
        std::istringstream stream(text);
        std::string command;
        stream >> command;
        Words words;
        for (std::string word; stream >> word;)
            words.push_back(word);
        try {
            std::cout << program.run(command, words) << std::endl;
        } catch (const std::exception &error) {
            std::cerr << "gripper-client-check: \"" << text << "\": " << error.what() << '\n';
            return 2;
        }
    }
    return 0;
}
