#include "commands.h"

#include "commandoptions.h"
#include "commandwords.h"
#include "gripperview.h"
#include "text.h"

#include <algorithm>
#include <chrono>
#include <functional>

namespace gripperctl {

namespace {

constexpr gripper::Seconds waitTimeout{30};
// A daemon that hangs, or a host that starts up, ends one look and not the wait.
constexpr gripper::Seconds lookTimeout{2};
constexpr double looksPerSecond = 20;
// Fingers that move slowly show a new position in less time.
constexpr gripper::Seconds standstill{0.5};

using gripper::Image;
using gripper::Outage;
using gripper::WatchItem;

/// A state to wait for.
struct State
{
    const char *name;
    const char *problem; ///< the text after a time-out
    bool needsGripper;
    /// May throw Failure.
    std::function<bool(const WatchItem &item)> isReached;
};

bool isListed(const Image &image)
{
    return std::find(image.listed.begin(), image.listed.end(), image.id) != image.listed.end();
}

bool isActive(const Image &image)
{
    refuseFaulty(image);
    return hasStatus(image, gripper::Status::Active);
}

/// Fingers that an object stopped, or a vacuum at the requested level.
bool hasPart(const Image &image)
{
    constexpr int levelReached = 2;
    if (isVacuum(image))
        return image.vacuumStatus == levelReached;
    return image.object == static_cast<int>(gripper::Object::Met);
}

bool hasNoPart(const Image &image)
{
    return !hasPart(image);
}

class StandsStill
{
public:
    bool operator()(const Image &image)
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

bool isAnswer(const WatchItem &item)
{
    const auto *outage = std::get_if<Outage>(&item);
    return outage == nullptr || outage->reason != Outage::Reason::NoConnection;
}

/// A condition that only an image fulfils: the link runs.
template <typename Condition>
auto ofImage(Condition condition)
{
    return [condition](const WatchItem &item) mutable {
        const auto *image = std::get_if<Image>(&item);
        return image != nullptr && condition(*image);
    };
}

std::vector<State> allStates()
{
    return {
        {"daemon", "no answer", false, isAnswer},
        {"gripper", "not found", true, ofImage(isListed)},
        {"active", "not active", true, ofImage(isActive)},
        {"still", "not still", true, ofImage(StandsStill())},
        {"object", "no object", true, ofImage(hasPart)},
        {"lost", "not lost", true, ofImage(hasNoPart)},
    };
}

std::string describe(const WatchItem &item)
{
    if (const auto *outage = std::get_if<Outage>(&item))
        return outage->text;
    const auto &image = std::get<Image>(item);
    return concat("gripper ", image.id, " is ", statusText(image), ", object ", objectText(image),
                  ", position ", numberText(image.position), ", fault ", faultText(image));
}

/// Looks again and again, also while the daemon does not answer, or does not list the gripper.
WatchItem awaitState(Program &program, const State &state)
{
    const gripper::Seconds timeout = program.timeoutOr(waitTimeout);
    const gripper::Deadline end(timeout);
    const gripper::Options usual = program.options();
    std::string present = "gripperd does not answer";
    const auto refuseLate = [&] {
        if (end.isOver())
            throw Failure(ExitCode::TimedOut,
                          concat(state.problem, " within ", timeout.count(), " s: ", present));
    };
    // Also ends a look that hangs: the library does not catch a Failure.
    const gripper::Options options{std::min(timeout, lookTimeout), [&] {
                                       usual.onWaiting();
                                       refuseLate();
                                   }};
    std::vector<int> ids;
    if (state.needsGripper)
        ids = {program.gripperId()};
    gripper::Watch watch(program.endpoint(), options, ids, looksPerSecond);
    WatchItem item = watch.next();
    while (!state.isReached(item)) {
        present = describe(item);
        refuseLate();
        item = watch.next();
    }
    return item;
}

void reportLine(Program &program)
{
    const gripper::LineImage image = program.line().image();
    program.output().result(concat("driver ", image.driver.value_or("?"), ", link ",
                                   image.link.value_or("?"), ", grippers ",
                                   listOfIds(image.ids.value_or(std::vector<int>()))),
                            {{"driver", jsonOf(image.driver)},
                             {"link", jsonOf(image.link)},
                             {"grippers", jsonOf(image.ids)}});
}

void waitFor(Program &program, const State &state)
{
    program.output().begin(concat("waiting for ", state.name));
    const WatchItem item = awaitState(program, state);
    const std::string name = state.name;
    if (name == "daemon" || name == "gripper") {
        reportLine(program);
        return;
    }
    Json json = jsonOf(std::get<Image>(item));
    json["text"] = name;
    program.output().result(describe(item), json);
}

std::vector<std::string> stateNames()
{
    std::vector<std::string> names;
    for (const State &state : allStates())
        names.emplace_back(state.name);
    return names;
}

void runWait(Program &program, const CLI::App &command)
{
    const std::string &word = wordsOf(command).front();
    for (const State &state : allStates()) {
        if (word == state.name) {
            waitFor(program, state);
            return;
        }
    }
    const std::vector<std::string> names = stateNames();
    throw Failure(ExitCode::WrongUsage, concat("wait takes one of ", join(names), ", not \"", word,
                                               '"', tools::suggestion(word, names)));
}

} // namespace

void addWait(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"wait", "Wait for daemon, gripper, active, still, object or lost.",
         "daemon: gripperd answers. gripper: the link runs, and the gripper is found. "
         "active: it\nis ready to move. still: it does not move. object: it holds a "
         "part. lost: it holds no part.\nThe exit code is 4 after --timeout (default 30 s).",
         "wait object --timeout 5"},
        runWait);
    addWords(command, "STATE", 1, 1, join(stateNames(), " "));
}

} // namespace gripperctl
