#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <chrono>
#include <functional>
#include <memory>

namespace gripperctl {

namespace {

constexpr gripper::Seconds waitTimeout{30};
constexpr double looksPerSecond = 20;
// Fingers that move slowly show a new position in less time.
constexpr gripper::Seconds standstill{0.5};

/// Whether an image ends the wait. May throw Failure.
using Condition = std::function<bool(const gripper::Image &image)>;

void refuseFaulty(const gripper::Image &image)
{
    if (image.fault.value_or(0) != 0)
        throw Failure(ExitCode::Refused,
                      concat("gripper ", image.id, " has fault ", *image.fault,
                             ": see its manual; gripperctl activate --again clears the faults that "
                             "can be cleared"));
}

bool isActive(const gripper::Image &image)
{
    refuseFaulty(image);
    return image.status == static_cast<int>(gripper::Status::Active);
}

/// Fingers that an object stopped, or a vacuum at the requested level.
bool hasPart(const gripper::Image &image)
{
    constexpr int levelReached = 2;
    if (isVacuum(image))
        return image.vacuumStatus == levelReached;
    return image.object == static_cast<int>(gripper::Object::Met);
}

class StandsStill
{
public:
    bool operator()(const gripper::Image &image)
    {
        const bool isMoving = image.object == static_cast<int>(gripper::Object::Moving);
        if (isMoving || image.position != m_position) {
            m_position = image.position;
            m_since = image.time.monotonic;
        }
        return !isMoving && image.time.monotonic - m_since >= standstill;
    }

private:
    std::optional<int> m_position;
    std::chrono::steady_clock::time_point m_since;
};

std::string describe(const gripper::WatchItem &item)
{
    if (const auto *outage = std::get_if<gripper::Outage>(&item))
        return outage->text;
    const auto &image = std::get<gripper::Image>(item);
    return concat("gripper ", image.id, " is ", statusText(image), ", object ", objectText(image),
                  ", position ", numberText(image.position), ", fault ", faultText(image));
}

/// Also waits while the daemon does not answer, or does not list the gripper.
void waitForGripper(Program &program, const std::string &state, const Condition &isOver)
{
    const gripper::Seconds timeout = program.timeoutOr(waitTimeout);
    const gripper::Deadline end(timeout);
    gripper::Options options = program.options();
    options.timeout = timeout;
    gripper::Watch watch(program.endpoint(), options, {program.gripperId()}, looksPerSecond);
    while (true) {
        const gripper::WatchItem item = watch.next();
        const auto *image = std::get_if<gripper::Image>(&item);
        if (image != nullptr && isOver(*image)) {
            Json json = jsonOf(*image);
            json["text"] = state;
            program.output().result(describe(item), json);
            return;
        }
        if (end.isOver())
            throw gripper::TimedOut(
                concat("not ", state, " within ", timeout.count(), " s: ", describe(item)));
    }
}

void printLine(Program &program, const gripper::LineImage &image)
{
    program.output().result(concat("driver ", image.driver.value_or("?"), ", link ",
                                   image.link.value_or("?"), ", grippers ",
                                   listOfIds(image.ids.value_or(std::vector<int>()))),
                            {{"driver", jsonOf(image.driver)},
                             {"link", jsonOf(image.link)},
                             {"grippers", jsonOf(image.ids)}});
}

void waitForDaemon(Program &program)
{
    const gripper::Deadline end(program.timeoutOr(waitTimeout));
    gripper::Line line = program.line();
    while (true) {
        try {
            printLine(program, line.image());
            return;
        } catch (const gripper::ConnectionLost &error) {
            if (end.isOver())
                throw gripper::TimedOut(error.what());
        }
        program.pause(gripper::Seconds(0.1));
    }
}

void waitForListed(Program &program)
{
    gripper::Line line = program.line();
    line.waitUntilRunning({program.gripperId()}, program.timeoutOr(waitTimeout));
    printLine(program, line.image());
}

struct State
{
    const char *name;
    void (*wait)(Program &program);
};

const State states[] = {
    {"daemon", waitForDaemon},
    {"gripper", waitForListed},
    {"active", [](Program &program) { waitForGripper(program, "active", isActive); }},
    {"still", [](Program &program) { waitForGripper(program, "still", StandsStill()); }},
    {"object", [](Program &program) { waitForGripper(program, "object", hasPart); }},
    {"lost",
     [](Program &program) {
         waitForGripper(program, "lost", [](const auto &image) { return !hasPart(image); });
     }},
};

std::vector<std::string> stateNames()
{
    std::vector<std::string> names;
    for (const State &state : states)
        names.emplace_back(state.name);
    return names;
}

void run(Program &program, const std::string &word)
{
    for (const State &state : states) {
        if (word == state.name) {
            program.output().begin("waiting for " + word);
            state.wait(program);
            return;
        }
    }
    const std::vector<std::string> names = stateNames();
    throw Failure(ExitCode::WrongUsage, concat("wait takes one of ", join(names), ", not \"", word,
                                               '"', suggestion(word, names)));
}

} // namespace

void addWait(CLI::App &app, Program &program)
{
    const auto word = std::make_shared<std::string>();
    CLI::App &command = addCommand(
        app,
        {"wait", "Wait for daemon, gripper, active, still, object or lost.",
         "daemon: gripperd answers. gripper: the link runs, and the gripper is found. "
         "active: it\nis ready to move. still: it does not move. object: it holds a "
         "part. lost: it holds no part.\nThe exit code is 4 after --timeout (default 30 s).",
         "wait object --timeout 5"},
        [&program, word] { run(program, *word); });
    addWord(command, "STATE", *word)->option_text(join(stateNames(), " "));
}

} // namespace gripperctl
