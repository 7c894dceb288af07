// The picture: what readings become, which events they contain, the history.
#include "assertions.h"
#include "views.h"

#include <joblist.h>

#include <string>

using namespace gateway;
using namespace std::chrono_literals;
using views::at;
using views::image;
using views::reading;

namespace {

constexpr const char *faultTexts = R"({"Pello": {"12": "too hot"}})";

/// A picture that has seen gripper 9, with no events.
struct Seen
{
    Picture picture{FaultTexts::fromJson(faultTexts), at(0ms)};
    std::uint64_t before = 0;

    Seen()
    {
        picture.take(reading(0ms, {image()}));
        before = picture.events().lastNumber();
    }

    /// The kinds of the events since then.
    std::vector<EventKind> events() const
    {
        std::vector<EventKind> kinds;
        for (const Event &event : picture.events().events()) {
            if (event.number > before)
                kinds.push_back(event.kind);
        }
        return kinds;
    }

    void take(std::chrono::milliseconds time, const gripper::Image &next)
    {
        picture.take(reading(time, {next}));
    }
};

gripper::Image moving(int target)
{
    gripper::Image next = image();
    next.requestedPosition = target;
    next.object = 1;
    return next;
}

Command command(Action action, int position = 0)
{
    Command command;
    command.action = action;
    command.gripper = 9;
    command.position = position;
    return command;
}

using Kinds = std::vector<EventKind>;

} // namespace

TEST(theLineHasTheStateOfItsText)
{
    const std::pair<const char *, LineCondition> rows[] = {
        {"RUNNING", LineCondition::Connected},
        {"SCANNING", LineCondition::Scanning},
        {"ERR_TIMEOUT", LineCondition::TimedOut},
        {"ERR_SCANNING (EIO)", LineCondition::Gone},
    };
    for (const auto &[text, condition] : rows) {
        Picture picture({}, at(0ms));
        CHECK(picture.line().condition == LineCondition::Connecting);
        picture.take(views::lineReading(50ms, text));
        CHECK(picture.line().condition == condition);
        CHECK(picture.line().since.monotonic == at(50ms).monotonic);
        CHECK(picture.line().version == "MZV-2.0.0");
    }
}

TEST(anUpgradeIsAStateOfTheLine)
{
    Seen seen;
    Reading next = reading(50ms, {image()});
    next.line->upgrading = true;
    seen.picture.take(next);
    CHECK(seen.picture.line().condition == LineCondition::Upgrading);
    CHECK(seen.picture.grippers().at(9).isStale);
}

TEST(valuesStayWhenTheDaemonDoesNotAnswer)
{
    Seen seen;
    Reading next;
    next.time = at(50ms);
    next.problem = "refused";
    seen.picture.take(next);
    CHECK(seen.picture.line().condition == LineCondition::NoDaemon);
    CHECK(seen.picture.line().text == "refused");
    CHECK(seen.picture.line().isStale);
    const GripperView &view = seen.picture.grippers().at(9);
    CHECK(view.isStale && view.isPresent);
    CHECK(view.image.position == 10);
    CHECK(seen.events() == Kinds{EventKind::Link});
}

TEST(valuesAreStaleAfterASecondWithoutAReading)
{
    Seen seen;
    const auto version = seen.picture.version();
    seen.picture.advance(at(1000ms));
    CHECK(!seen.picture.grippers().at(9).isStale && !seen.picture.line().isStale);
    CHECK(seen.picture.version() == version);
    seen.picture.advance(at(1001ms));
    CHECK(seen.picture.grippers().at(9).isStale && seen.picture.line().isStale);
    CHECK(seen.picture.version() > version);
}

TEST(onlyAChangeOfAValueIsAChange)
{
    Seen seen;
    const auto version = seen.picture.version();
    seen.take(50ms, image());
    CHECK(seen.picture.version() == version);
    gripper::Image next = image();
    next.current = 1;
    seen.take(100ms, next);
    CHECK(seen.picture.grippers().at(9).version > version);
}

TEST(aMissingGripperStaysForTenMinutes)
{
    Seen seen;
    seen.picture.take(reading(50ms, {image(2)}));
    const GripperView &view = seen.picture.grippers().at(9);
    CHECK(!view.isPresent && view.isStale);
    CHECK(view.missingSince == at(50ms).monotonic);
    CHECK((seen.events() == Kinds{EventKind::Found, EventKind::Missing}));
    seen.picture.advance(at(50ms + 10min));
    CHECK(seen.picture.grippers().count(9) == 1);
    const auto version = seen.picture.version();
    seen.picture.advance(at(51ms + 10min));
    CHECK(seen.picture.grippers().count(9) == 0);
    CHECK(seen.picture.removed().at(9) > version);
    CHECK(seen.picture.history(9) == nullptr);
}

TEST(aGripperThatReturnsIsFound)
{
    Seen seen;
    seen.picture.take(reading(50ms, {}));
    seen.take(100ms, image());
    CHECK((seen.events() == Kinds{EventKind::Missing, EventKind::Found}));
    CHECK(seen.picture.grippers().at(9).isPresent);
}

TEST(anEmptyListOfALostLineMissesNoGripper)
{
    Seen seen;
    seen.picture.take(views::lineReading(50ms, "ERR_TIMEOUT"));
    CHECK(seen.picture.grippers().at(9).isPresent);
    CHECK(seen.events() == Kinds{EventKind::Link});
}

TEST(aGripperWithANewIdLeavesItsOldOne)
{
    Seen seen;
    seen.picture.take(reading(50ms, {}));
    gripper::Image renamed = image(3);
    renamed.serialNumber = image(9).serialNumber;
    seen.take(100ms, renamed);
    CHECK(seen.picture.grippers().count(9) == 0);
    CHECK(seen.picture.grippers().count(3) == 1);
}

TEST(aFaultHasTheTextOfItsFamily)
{
    Seen seen;
    gripper::Image next = image();
    next.fault = 12;
    seen.take(50ms, next);
    CHECK(seen.events() == Kinds{EventKind::Fault});
    const Event &event = seen.picture.events().events().back();
    CHECK(event.code == 12 && event.detail == "too hot" && event.gripper == 9);
    seen.take(100ms, next);
    CHECK(seen.events() == Kinds{EventKind::Fault});
    seen.take(150ms, image());
    CHECK((seen.events() == Kinds{EventKind::Fault, EventKind::FaultCleared}));
    next.fault = 13;
    seen.take(200ms, next);
    CHECK(!seen.picture.events().events().back().detail);
}

TEST(faultTextsMustHaveTheirForm)
{
    for (const char *text : {"", "[]", "{\"Pello\": 1}", R"({"Pello": {"x": "y"}})",
                             R"({"Pello": {"0": "y"}})", R"({"Pello": {"1": 2}})"})
        CHECK_THROWS(std::runtime_error, FaultTexts::fromJson(text));
}

TEST(aMovementArrives)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Move, 80));
    seen.take(50ms, moving(80));
    CHECK(seen.events().empty());
    gripper::Image end = moving(80);
    end.object = 3;
    seen.take(100ms, end);
    CHECK(seen.events() == Kinds{EventKind::Arrived});
}

TEST(aMovementBetweenTwoReadingsArrivesToo)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Move, 11));
    gripper::Image end = moving(11);
    end.object = 3;
    seen.take(50ms, end);
    CHECK(seen.events() == Kinds{EventKind::Arrived});
}

TEST(anObjectIsMetAndLost)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Move, 255));
    seen.take(50ms, moving(255));
    gripper::Image next = moving(255);
    next.object = 2;
    seen.take(100ms, next);
    CHECK(seen.events() == Kinds{EventKind::ObjectMet});
    CHECK(seen.picture.events().events().back().text == "gripper 9 holds an object");
    seen.take(150ms, moving(255));
    CHECK((seen.events() == Kinds{EventKind::ObjectMet, EventKind::ObjectLost}));
}

TEST(anObjectThatARequestReleasesIsNotLost)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Move, 255));
    gripper::Image next = moving(255);
    next.object = 2;
    seen.take(50ms, next);
    seen.picture.beginCommand(command(Action::Move, 0));
    seen.take(100ms, moving(0));
    CHECK(seen.events() == Kinds{EventKind::ObjectMet});
}

TEST(aVacuumGripperHoldsByItsVacuum)
{
    Picture picture({}, at(0ms));
    gripper::Image vacuum = image(2);
    picture.take(reading(0ms, {vacuum}));
    vacuum.vacuumStatus = 2;
    picture.take(reading(50ms, {vacuum}));
    CHECK(picture.events().events().back().kind == EventKind::ObjectMet);
    CHECK(picture.events().events().back().text == "gripper 2 holds an object");
    vacuum.vacuumStatus = 3;
    vacuum.object = 2;
    picture.take(reading(100ms, {vacuum}));
    CHECK(picture.events().events().back().kind == EventKind::ObjectLost);
}

TEST(aRequestOfAnotherClientShows)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Move, 80));
    seen.take(50ms, moving(80));
    CHECK(seen.picture.grippers().at(9).request == 80);
    seen.take(100ms, moving(90));
    CHECK(seen.events() == Kinds{EventKind::OtherCommand});
    const GripperView &view = seen.picture.grippers().at(9);
    CHECK(!view.request && view.isCommandedByOther);
    seen.picture.advance(at(10100ms));
    CHECK(!seen.picture.grippers().at(9).isCommandedByOther);
}

TEST(theEchoOfAnEndedCommandIsOursForASecond)
{
    for (const bool isLate : {false, true}) {
        Seen seen;
        seen.picture.beginCommand(command(Action::Move, 80));
        seen.picture.endCommand(9, at(100ms).monotonic);
        seen.take(isLate ? 1100ms : 1099ms, moving(80));
        CHECK(seen.picture.grippers().at(9).isCommandedByOther == isLate);
    }
}

TEST(aRequestOfAnotherClientShowsRightAfterAStop)
{
    for (const Action action : {Action::Stop, Action::Led, Action::Mode}) {
        Seen seen;
        seen.picture.beginCommand(command(action));
        seen.picture.endCommand(9, at(50ms).monotonic);
        seen.take(100ms, moving(90));
        CHECK(seen.events() == Kinds{EventKind::OtherCommand});
    }
}

TEST(theEchoOfAReplacedMovementIsOurs)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Move, 80));
    seen.picture.beginCommand(command(Action::Move, 90));
    seen.picture.beginCommand(command(Action::Stop));
    seen.take(50ms, moving(80));
    seen.take(100ms, moving(90));
    gripper::Image stopped = moving(90);
    stopped.goTo = false;
    seen.take(150ms, stopped);
    CHECK(seen.events().empty());
}

TEST(anActivationMayChangeTheRequest)
{
    Seen seen;
    seen.picture.beginCommand(command(Action::Activate));
    seen.take(50ms, moving(0));
    CHECK(seen.events().empty());
}

TEST(aRestartOfAGripperIsNoCommand)
{
    Seen seen;
    gripper::Image restarted = image();
    restarted.status = 0;
    restarted.active = false;
    restarted.goTo = false;
    restarted.requestedPosition = 0;
    seen.take(50ms, restarted);
    CHECK(seen.events().empty());
}

TEST(theHistoryKeepsTenMinutes)
{
    History history;
    gripper::Image value = image();
    for (std::size_t i = 0; i < History::capacity + 5; ++i) {
        value.position = static_cast<int>(i % 200);
        history.add(std::chrono::milliseconds(50 * i), value);
    }
    const auto samples = history.since(0ms);
    CHECK(samples.size() == History::capacity);
    CHECK(samples.front().time == 250ms && samples.front().position == 5);
    for (std::size_t i = 1; i < samples.size(); ++i)
        CHECK(samples[i].time > samples[i - 1].time);
    CHECK(history.since(samples.back().time).size() == 1);
}

TEST(aGapIsOneSample)
{
    History history;
    history.addGap(0ms);
    CHECK(history.since(0ms).empty());
    history.add(50ms, image());
    history.addGap(100ms);
    history.addGap(150ms);
    const auto samples = history.since(0ms);
    CHECK(samples.size() == 2 && samples[0].hasValues && !samples[1].hasValues);
}

TEST(theLogKeepsTheLastEvents)
{
    EventLog log;
    for (std::size_t i = 0; i < EventLog::capacity + 3; ++i)
        log.add({}, at(0ms));
    CHECK(log.events().size() == EventLog::capacity);
    CHECK(log.events().front().number == 4 && log.lastNumber() == EventLog::capacity + 3);
}

TEST(theListKeepsRunningJobs)
{
    JobList list;
    const int first = list.add({}, at(0ms)).id;
    for (std::size_t i = 0; i < 2 * JobList::capacity; ++i)
        list.finish(list.add({}, at(0ms)).id, {}, at(0ms).monotonic);
    CHECK(list.jobs().size() == JobList::capacity);
    CHECK(list.find(first) != nullptr && list.find(first)->isRunning());
    CHECK(list.find(2) == nullptr);
}

int main()
{
    return runTests();
}
