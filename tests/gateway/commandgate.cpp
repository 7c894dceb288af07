// The messages of the MQTT face, without a broker: which commands pass, which topics and which
// reports are due.
#include "assertions.h"
#include "views.h"

#include <commandgate.h>
#include <problemlimit.h>
#include <resultqueue.h>
#include <statepublisher.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using namespace gateway;
using namespace std::chrono_literals;
using views::at;
using views::image;
using views::reading;

namespace {

std::int64_t wallOf(std::chrono::milliseconds time)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(at(time).wall.time_since_epoch())
        .count();
}

/// A gate for gripper 9 that started long ago, unless a test says otherwise.
struct Gate
{
    Picture picture{{}, at(0ms)};
    JobList list;
    Lease lease;
    CommandGate gate{{"move", "stop"}, at(-1h)};
    std::chrono::milliseconds now = 0ms;
    std::chrono::milliseconds clockAhead = 0ms; ///< what somebody has set the clock forward
    int lastId = 0;

    Gate() { picture.take(reading(0ms, {image()})); }

    View view() const
    {
        return {picture, list, lease, false, {at(now).monotonic, at(now + clockAhead).wall}};
    }

    /// Time passes. The gripper has present values then.
    void waitUntil(std::chrono::milliseconds time)
    {
        now = time;
        picture.take(reading(now, {image()}));
        gate.advance(view().now());
    }

    Json movement(std::chrono::milliseconds validity = 3s)
    {
        return {{"id", "id" + std::to_string(++lastId)},
                {"expires", wallOf(now + clockAhead + validity)},
                {"do", "move"},
                {"position", 7}};
    }

    CommandGate::Decision decide(const Json &message, bool isRetained = false, int gripper = 9)
    {
        return gate.decide({gripper, textOf(message), isRetained}, view());
    }

    /// "ok", or the code of the refusal.
    std::string codeOf(const Json &message, bool isRetained = false, int gripper = 9)
    {
        const auto decision = decide(message, isRetained, gripper);
        CHECK(decision.command.has_value() != decision.refusal.has_value());
        return decision.command ? "ok" : decision.refusal->code();
    }

    std::string codeWith(const char *name, const Json &value)
    {
        Json message = movement();
        message[name] = value;
        return codeOf(message);
    }
};

bool has(const std::vector<Message> &messages, const std::string &topic)
{
    return std::any_of(messages.begin(), messages.end(),
                       [&](const Message &message) { return message.topic == topic; });
}

/// Publishes for gripper 9, which the broker already has.
struct Published : Gate
{
    Topics topics{"n"};
    StatePublisher publisher{topics};

    Published() { publisher.due(view()); }

    std::vector<Message> moveTo(int position, std::chrono::milliseconds time)
    {
        gripper::Image next = image();
        next.position = position;
        picture.take(reading(time, {next}));
        now = time;
        return publisher.due(view());
    }
};

} // namespace

TEST(aCommandHasItsValuesAndItsEnd)
{
    Gate gate;
    const auto decision = gate.decide(gate.movement(3s));
    CHECK(decision.id == "id1" && decision.action == "move" && decision.command);
    const Command &command = *decision.command;
    CHECK(command.action == Action::Move && command.gripper == 9 && command.position == 7);
    CHECK(command.latestBegin == at(3s).monotonic);
    CHECK(command.peer == "MQTT, id id1" && command.role == Role::Operate);
}

TEST(theExpiryHasLimits)
{
    Gate gate;
    CHECK(gate.codeOf(gate.movement(1ms)) == "ok");
    CHECK(gate.codeOf(gate.movement(5000ms)) == "ok");
    CHECK(gate.codeOf(gate.movement(5001ms)) == "too-far-ahead");
    CHECK(gate.codeOf(gate.movement(0ms)) == "expired");
    CHECK(gate.codeOf(gate.movement(-1h)) == "expired");
    Json endless = gate.movement();
    endless.erase("expires");
    CHECK(gate.codeOf(endless) == "no-expiry");
    for (const Json &value : {Json("3"), Json(-1), Json(1.5), Json(), Json(UINT64_MAX)})
        CHECK(gate.codeWith("expires", value) == "bad-request");
}

TEST(anIdWorksOnce)
{
    Gate gate;
    const Json message = gate.movement();
    CHECK(gate.codeOf(message) == "ok");
    CHECK(gate.codeOf(message) == "repeated");
    Json other = gate.movement();
    other["id"] = "id1";
    CHECK(gate.codeOf(other) == "repeated");
}

TEST(aRefusedIdStaysRefused)
{
    Gate gate;
    gate.lease.take({1, Role::Operate, "a"}, false, at(0ms));
    const Json message = gate.movement();
    CHECK(gate.codeOf(message) == "held");
    gate.lease.end();
    CHECK(gate.codeOf(message) == "repeated");
}

TEST(aCommandThatIsRefusedForItsTimeStaysRefused)
{
    Gate gate;
    const Json early = gate.movement(7s);
    CHECK(gate.codeOf(early) == "too-far-ahead");
    const Json kept = gate.movement();
    CHECK(gate.codeOf(kept, true) == "retained");
    CHECK(gate.codeOf(kept, true) == "retained");
    gate.now = 2100ms;
    gate.picture.take(reading(gate.now, {image()}));
    CHECK(gate.codeOf(early) == "repeated");
    CHECK(gate.codeOf(kept) == "repeated");
}

TEST(refusedIdsNeedNoMemoryAndBlockNothing)
{
    Gate gate;
    const Json first = gate.movement(7s);
    CHECK(gate.codeOf(first) == "too-far-ahead");
    for (std::size_t count = 0; count < CommandGate::maxIds; ++count)
        CHECK(gate.codeOf(gate.movement(1h)) == "too-far-ahead");
    CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.now = 2100ms;
    gate.picture.take(reading(gate.now, {image()}));
    CHECK(gate.codeOf(first) == "ok");
}

TEST(aMemberThatComesTwiceIsRefused)
{
    Gate gate;
    const std::string text = textOf(gate.movement());
    for (const char *begin : {R"({"id":"other",)", R"({"position":9,)", R"({"do":"stop",)"}) {
        const auto decision = gate.gate.decide({9, begin + text.substr(1), false}, gate.view());
        CHECK(decision.refusal && decision.refusal->code() == std::string("bad-request"));
    }
    CHECK(gate.gate.decide({9, text, false}, gate.view()).command);
}

TEST(noIdIsForgottenWhileItIsValid)
{
    Gate gate;
    std::vector<Json> messages;
    for (std::size_t count = 0; count < CommandGate::maxIds; ++count)
        messages.push_back(gate.movement(5s));
    for (const Json &message : messages)
        CHECK(gate.codeOf(message) == "ok");
    CHECK(gate.codeOf(gate.movement()) == "too-many");
    gate.now = 4999ms;
    gate.picture.take(reading(gate.now, {image()}));
    for (const Json &message : messages)
        CHECK(gate.codeOf(message) == "repeated");
    gate.now = 5000ms;
    CHECK(gate.codeOf(gate.movement()) == "ok");
}

TEST(aClockThatIsSetBackRevivesNoForgottenCommand)
{
    Gate gate;
    const Json old = gate.movement(1s);
    CHECK(gate.codeOf(old) == "ok");
    gate.waitUntil(10s);
    for (std::size_t count = 0; count < CommandGate::maxIds; ++count)
        CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.clockAhead = -10s;
    CHECK(gate.codeOf(old) == "too-early");
    gate.waitUntil(10999ms);
    CHECK(gate.codeOf(old) == "too-early");
    gate.waitUntil(11s);
    CHECK(gate.codeOf(old) == "expired");
}

TEST(aGateKnowsNoIdsFromBeforeItsStart)
{
    Gate gate;
    gate.gate = CommandGate({"move"}, at(0ms));
    CHECK(gate.codeOf(gate.movement(5000ms)) == "too-early");
    gate.now = 1ms;
    CHECK(gate.codeOf(gate.movement(5000ms)) == "ok");
}

TEST(aClockThatIsSetBackRevivesNoCommandFromBeforeTheStart)
{
    Gate gate;
    gate.gate = CommandGate({"move"}, at(0ms));
    const Json first = gate.movement(5000ms);
    const Json second = gate.movement(5000ms);
    gate.waitUntil(30s);
    CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.clockAhead = -30s;
    CHECK(gate.codeOf(first) == "too-early");
    gate.waitUntil(30s + 4999ms);
    CHECK(gate.codeOf(second) == "too-early");
    CHECK(gate.codeOf(gate.movement()) == "ok");
}

TEST(aClockThatIsSetBackBlocksCommandsForAMinuteAtMost)
{
    Gate gate;
    gate.gate = CommandGate({"move"}, at(0ms));
    gate.waitUntil(10s);
    const Json old = gate.movement();
    CHECK(gate.codeOf(old) == "ok");
    gate.clockAhead = -1h;
    gate.waitUntil(11s);
    gate.waitUntil(11s + CommandGate::longestBlock - 1ms);
    const auto decision = gate.decide(gate.movement());
    CHECK(decision.refusal && decision.refusal->code() == std::string("too-early"));
    CHECK(std::string(decision.refusal->what()).find("in 1 s") != std::string::npos);
    gate.waitUntil(11s + CommandGate::longestBlock);
    CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.clockAhead = 12s - gate.now;
    CHECK(gate.codeOf(old) == "repeated");
}

TEST(aClockThatIsSetBackAtTheStartBlocksCommandsForAMinuteAtMost)
{
    Gate gate;
    gate.gate = CommandGate({"move"}, at(0ms));
    gate.clockAhead = -1h;
    gate.waitUntil(CommandGate::longestBlock - 1ms);
    CHECK(gate.codeOf(gate.movement()) == "too-early");
    gate.waitUntil(CommandGate::longestBlock);
    CHECK(gate.codeOf(gate.movement()) == "ok");
}

TEST(manyIdsFromBeforeAChangeOfTheClockBlockNothingForLong)
{
    Gate gate;
    for (std::size_t count = 0; count < CommandGate::maxIds; ++count)
        CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.clockAhead = -1h;
    gate.waitUntil(5s);
    CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.waitUntil(6s);
    CHECK(gate.codeOf(gate.movement()) == "too-early");
    gate.waitUntil(6s + CommandGate::longestBlock);
    for (std::size_t count = 0; count < CommandGate::maxIds; ++count)
        CHECK(gate.codeOf(gate.movement()) == "ok");
}

TEST(onlyTheAllowedActionsPass)
{
    Gate gate;
    for (const char *action :
         {"activate", "deactivate", "release", "led", "mode", "scan", "rename", "upgrade", "", "x"})
        CHECK(gate.codeWith("do", action) == "not-allowed");
    gate.gate = CommandGate({"scan", "rename", "upgrade"}, at(-1h));
    for (const char *action : {"scan", "rename", "upgrade"})
        CHECK(gate.codeWith("do", action) == "not-allowed");
}

TEST(retainedAndLargeAndMalformedMessagesAreRefused)
{
    Gate gate;
    CHECK(gate.codeOf(gate.movement(), true) == "retained");
    CHECK(gate.codeWith("serial", std::string(CommandGate::maxPayload, 'x')) == "too-large");
    CHECK(gate.codeWith("serial", "SIM-8") == "serial");
    CHECK(gate.codeWith("serial", "SIM-9") == "ok");
    CHECK(gate.codeWith("positon", 7) == "bad-request");
    CHECK(gate.codeWith("position", 256) == "bad-request");
    for (const Json &id : {Json(""), Json("a\nb"), Json("a b"), Json("\xc3\xa4"),
                           Json(std::string(65, 'x')), Json(7), Json()})
        CHECK(gate.codeWith("id", id) == "bad-request");
    CHECK(gate.codeOf(gate.movement(), false, 8) == "unknown-gripper");
}

TEST(changedBytesGiveNoOtherCommand)
{
    Gate gate;
    std::minstd_rand random(1);
    for (int round = 0; round < 20000; ++round) {
        std::string text = textOf(gate.movement());
        for (auto change = random() % 3 + 1; change > 0; --change)
            text[random() % (text.size() - 1)] = static_cast<char>(random() % 256);
        const auto decision = gate.gate.decide({9, text, false}, gate.view());
        if (decision.command)
            CHECK(decision.command->action == Action::Move && decision.command->position <= 9);
    }
}

TEST(oldValuesRefuseEverything)
{
    Gate gate;
    gate.now = 1100ms;
    gate.picture.advance(at(gate.now));
    CHECK(gate.codeOf(gate.movement()) == "unavailable");
    Json stop = gate.movement();
    stop["do"] = "stop";
    stop.erase("position");
    CHECK(gate.codeOf(stop) == "unavailable");
    for (const char *link : {"SCANNING", "ERR_TIMEOUT", "ERR_RESOURCE"}) {
        gate.picture.take(views::lineReading(gate.now, link));
        CHECK(gate.codeOf(gate.movement()) == "unavailable");
    }
    gate.picture.take(reading(gate.now, {image()}));
    CHECK(gate.codeOf(gate.movement()) == "ok");
    gate.picture.take(reading(gate.now, {}));
    CHECK(gate.codeOf(gate.movement()) == "unavailable");
}

TEST(aStopNeedsNoControl)
{
    Gate gate;
    gate.lease.take({1, Role::Operate, "a"}, false, at(0ms));
    CHECK(gate.codeOf(gate.movement()) == "held");
    Json stop = gate.movement();
    stop["do"] = "stop";
    stop.erase("position");
    CHECK(gate.codeOf(stop) == "ok");
}

TEST(topicsNameTheGripper)
{
    const Topics topics("n");
    CHECK(topics.gripperOfCommand("gripperd/n/gripper/9/command") == 9);
    for (const char *topic :
         {"gripperd/n/gripper/0/command", "gripperd/n/gripper/248/command",
          "gripperd/n/gripper//command", "gripperd/n/gripper/9/commands",
          "gripperd/n/gripper/9/x/command", "gripperd/m/gripper/9/command", "command",
          "gripperd/n/gripper/command", "gripperd/n/gripper/+9/command",
          "gripperd/n/gripper/09/command", "gripperd/n/gripper/9/command/", "gripperd/n/gripper/9"})
        CHECK(!topics.gripperOfCommand(topic));
    for (const char *name : {"", "a/b", "a+", "#", "a b", "\xc3\xa4"})
        CHECK(!isNodeName(name));
    CHECK(isNodeName("hall2-robot7.plant") && !isNodeName(std::string(65, 'x')));
}

TEST(theFirstMessagesAreComplete)
{
    Gate gate;
    const Topics topics("n");
    StatePublisher publisher(topics);
    const auto messages = publisher.due(gate.view());
    for (const char *word : {"link", "grippers", "gripper/9/info", "gripper/9/state"})
        CHECK(has(messages, std::string("gripperd/n/") + word));
    // The ids that a scan looks for, without the present one.
    CHECK(std::count_if(messages.begin(), messages.end(),
                        [](const Message &message) { return message.payload.empty(); }) == 6);
    CHECK(publisher.due(gate.view()).empty());
    publisher.forget();
    CHECK(publisher.due(gate.view()).size() == messages.size());
}

TEST(nothingRetainedClaimsValuesThatTheGatewayDoesNotHave)
{
    Gate gate;
    gate.picture = Picture({}, at(0ms));
    const Topics topics("n");
    StatePublisher publisher(topics);
    const auto cleared = [&] {
        const auto messages = publisher.due(gate.view());
        return std::count_if(messages.begin(), messages.end(),
                             [](const Message &message) { return message.payload.empty(); });
    };
    // The first look may still find all grippers.
    CHECK(cleared() == 0);
    gateway::Reading withoutDaemon;
    withoutDaemon.time = at(0ms);
    gate.picture.take(withoutDaemon);
    CHECK(cleared() == 8);
    gate.picture.take(views::lineReading(0ms, "SCANNING"));
    CHECK(cleared() == 0);
}

TEST(aLineWithoutAListClearsNoKnownGripper)
{
    Gate gate;
    gate.picture.take(views::lineReading(0ms, "SCANNING"));
    const Topics topics("n");
    StatePublisher publisher(topics);
    for (const Message &message : publisher.due(gate.view()))
        CHECK(!message.payload.empty() || message.topic.find("/9/") == std::string::npos);
}

TEST(onlyTheStateChangesWithThePosition)
{
    Published broker;
    const auto messages = broker.moveTo(20, 300ms);
    CHECK(messages.size() == 1 && messages[0].topic == "gripperd/n/gripper/9/state");
    CHECK(messages[0].isRetained && Json::parse(messages[0].payload)["position"] == 20);
}

TEST(aStateWaitsForItsTurnAndIsTheLatest)
{
    Published broker;
    CHECK(broker.moveTo(20, 100ms).empty());
    CHECK(broker.moveTo(21, 150ms).empty());
    CHECK(broker.moveTo(22, 199ms).empty());
    broker.now = 200ms;
    const auto messages = broker.publisher.due(broker.view());
    CHECK(messages.size() == 1 && Json::parse(messages[0].payload)["position"] == 22);
    CHECK(broker.publisher.due(broker.view()).empty());
}

TEST(aGripperThatLeftIsCleared)
{
    Published broker;
    broker.picture.take(reading(300ms, {}));
    broker.now = 300ms;
    CHECK(has(broker.publisher.due(broker.view()), "gripperd/n/gripper/9/state"));
    broker.now = 300ms + Picture::forgetMissingAfter + 1s;
    broker.picture.take(reading(broker.now, {}));
    const auto messages = broker.publisher.due(broker.view());
    CHECK(std::count_if(messages.begin(), messages.end(), [](const Message &message) {
              return message.payload.empty() && message.topic.find("/9/") != std::string::npos;
          }) == 2);
    broker.picture.take(reading(broker.now + 300ms, {}));
    broker.now += 300ms;
    CHECK(!has(broker.publisher.due(broker.view()), "gripperd/n/gripper/9/state"));
}

TEST(everyOutcomeHasAPlaceAndTheLatestRefusals)
{
    ResultQueue results;
    results.addRefusal({"in flight", "", false});
    CHECK(results.next()->topic == "in flight");
    for (std::size_t number = 0; number <= ResultQueue::maxRefusals; ++number) {
        if (number < ResultQueue::maxOutcomes) {
            CHECK(results.hasRoom(0));
            results.addOutcome({"outcome", std::to_string(number), false});
        }
        results.addRefusal({"refusal", std::to_string(number), false});
    }
    CHECK(!results.hasRoom(0));
    const auto take = [&results] {
        const Message message = *results.next();
        CHECK(results.next()->payload == message.payload);
        results.remove();
        return message.topic + message.payload;
    };
    CHECK(take() == "in flight");
    for (std::size_t number = 0; number < ResultQueue::maxOutcomes; ++number)
        CHECK(take() == "outcome" + std::to_string(number));
    for (std::size_t number = 1; number <= ResultQueue::maxRefusals; ++number)
        CHECK(take() == "refusal" + std::to_string(number));
    CHECK(results.next() == nullptr);
}

TEST(runningJobsReserveThePlacesOfTheirOutcomes)
{
    ResultQueue results;
    CHECK(results.hasRoom(ResultQueue::maxOutcomes - 1));
    CHECK(!results.hasRoom(ResultQueue::maxOutcomes));
    results.addOutcome({"outcome", "", false});
    CHECK(!results.hasRoom(ResultQueue::maxOutcomes - 1));
    CHECK(results.hasRoom(ResultQueue::maxOutcomes - 2));
}

TEST(problemsInTurnAreReportedOnce)
{
    ProblemLimit problems;
    int reports = 0;
    for (std::chrono::seconds time = 0s; time < 1h; time += 2s) {
        for (const char *text : {"refused", "lost"})
            reports += problems.isDue(text, at(time).monotonic) ? 1 : 0;
    }
    CHECK(reports == 2);
    CHECK(problems.isDue("lost", at(1h).monotonic));
}

TEST(aProblemAfterAConnectionIsReportedOnceAMinute)
{
    ProblemLimit problems;
    int reports = 0;
    for (std::chrono::seconds time = 0s; time < 10min; time += 2s) {
        problems.connected(at(time).monotonic);
        for (const char *text : {"refused", "lost"})
            reports += problems.isDue(text, at(time + 1s).monotonic) ? 1 : 0;
    }
    CHECK(reports == 20);
}

TEST(manyTextsOfTheBrokerNeedNoMemory)
{
    ProblemLimit problems;
    CHECK(problems.isDue("first", at(0s).monotonic));
    for (std::size_t number = 1; number < ProblemLimit::maxTexts; ++number)
        CHECK(problems.isDue(std::to_string(number), at(1s).monotonic));
    CHECK(!problems.isDue("first", at(1s).monotonic));
    CHECK(problems.isDue("last", at(1s).monotonic));
    CHECK(problems.isDue("first", at(1s).monotonic));
}

int main()
{
    return runTests();
}
