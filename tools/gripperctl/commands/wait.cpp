#include "commands.h"

#include "commandoptions.h"
#include "gripperview.h"
#include "text.h"

#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>

namespace gripperctl {

namespace {

constexpr gripper::Seconds waitTimeout{30};
// A daemon that hangs, or a host that starts up, ends one look and not the wait.
constexpr gripper::Seconds lookTimeout{2};
constexpr double looksPerSecond = 20;
constexpr gripper::Seconds lookPause{0.1};
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

/// The end of a wait, also within a look.
class Limit
{
public:
    Limit(Program &program, const std::string &goal)
        : m_options(program.options())
        , m_goal(goal)
        , m_timeout(program.timeoutOr(waitTimeout))
        , m_end(m_timeout)
    {
    }

    /// Valid as long as this object.
    gripper::Options options() const
    {
        return {std::min(m_timeout, lookTimeout), [this] {
                    m_options.onWaiting();
                    check();
                }};
    }

    /// Keeps the present state, for the message.
    void note(const std::string &state) { m_state = state; }

    /// Throws Failure after the end. The library does not catch it.
    void check() const
    {
        if (m_end.isOver())
            throw Failure(ExitCode::TimedOut,
                          concat(m_goal, " within ", m_timeout.count(), " s: ", m_state));
    }

private:
    gripper::Options m_options;
    std::string m_goal;
    gripper::Seconds m_timeout;
    gripper::Deadline m_end;
    std::string m_state = "gripperd does not answer";
};

/// Also waits while the daemon does not answer, or does not list the gripper.
void waitForGripper(Program &program, const std::string &state, const Condition &isOver)
{
    Limit limit(program, "not " + state);
    gripper::Watch watch(program.endpoint(), limit.options(), {program.gripperId()},
                         looksPerSecond);
    while (true) {
        const gripper::WatchItem item = watch.next();
        const auto *image = std::get_if<gripper::Image>(&item);
        if (image != nullptr && isOver(*image)) {
            Json json = jsonOf(*image);
            json["text"] = state;
            program.output().result(describe(item), json);
            return;
        }
        limit.note(describe(item));
        limit.check();
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
    Limit limit(program, "no answer");
    gripper::Connection connection(program.endpoint(), limit.options());
    gripper::Line line(program.endpoint(), limit.options());
    while (true) {
        try {
            printLine(program, line.image());
            return;
        } catch (const gripper::ProtocolError &) {
            throw;
        } catch (const gripper::CommunicationError &error) {
            limit.note(error.what());
        }
        connection.pause(lookPause, gripper::Deadline(lookPause));
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
