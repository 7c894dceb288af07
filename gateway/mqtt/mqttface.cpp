#include "mqttface.h"

#include <version.h>

#include <algorithm>
#include <utility>

namespace gateway {

namespace {

using std::chrono::milliseconds;

// The gateways of a plant do not come back to their broker all at once.
constexpr int shortestRetryMs = 1000;
constexpr int longestRetryMs = 3000;

} // namespace

MqttFace::MqttFace(EventLoop &loop, const Settings &settings, Api &api, Report report)
    : m_topics(settings.node)
    , m_api(api)
    , m_report(std::move(report))
    , m_takesCommands(!settings.allowed.empty())
    , m_gate(settings.allowed, gripper::ReadingTime::now())
    , m_link(loop, linkSettings(settings),
             {[this] { onConnected(); }, [this](const std::string &problem) { onEnded(problem); },
              [this](const std::string &problem) {
                  reportProblem("the broker refuses a message or the commands: " + problem);
              },
              [this](const BrokerLink::Received &received) { onReceived(received); },
              [this](int number) { onAcknowledged(number); }})
{
}

BrokerLink::Settings MqttFace::linkSettings(const Settings &settings) const
{
    BrokerLink::Settings link = settings.broker;
    link.clientId = "gripperd-" + settings.node;
    link.will = statusMessage(false);
    return link;
}

Message MqttFace::statusMessage(bool isOnline) const
{
    Json status{{"state", isOnline ? "online" : "offline"}, {"version", tools::version}};
    // The broker publishes the will later, so it has no time.
    status["time"] = isOnline ? Json(isoTime(gripper::ReadingTime::now().wall)) : Json();
    return {m_topics.status(), textOf(status), true};
}

void MqttFace::pump(const View &view)
{
    m_gate.advance(view.now());
    m_link.advance();
    const Clock::time_point now = view.now().monotonic;
    if (m_link.isIdle() && !m_isClosed && now >= m_nextAttempt)
        m_link.connect();
    if (!m_link.canSend())
        return;
    for (const Message &message : m_states.due(view))
        m_link.send(message);
    sendNext(view);
}

void MqttFace::finish(const Job &job, const View &view)
{
    const auto origin = m_jobs.find(job.id);
    if (origin == m_jobs.end())
        return;
    m_results.addOutcome(
        resultOf(job.gripper.value_or(0), origin->second, view.job(job)["outcome"], view.now()));
    m_jobs.erase(origin);
}

void MqttFace::close(const View &view)
{
    m_isClosed = true;
    if (!m_link.canSend())
        return;
    for (const Message &message : m_states.due(view))
        m_link.send(message);
    if (m_inFlight && m_isResultInFlight)
        m_results.remove();
    for (const Message *result = m_results.next(); result != nullptr; result = m_results.next()) {
        m_link.sendAcknowledged(*result);
        m_results.remove();
    }
    m_link.send(statusMessage(false));
    m_link.disconnect();
}

void MqttFace::onConnected()
{
    m_states.forget();
    m_problems.connected(Clock::now());
    m_inFlight.reset();
    m_link.send(statusMessage(true));
    if (m_takesCommands)
        m_link.subscribe(m_topics.commands());
    if (!m_isConnectionReported)
        m_report("connected");
    m_isConnectionReported = true;
}

void MqttFace::onEnded(const std::string &problem)
{
    m_inFlight.reset();
    std::uniform_int_distribution<int> pause(shortestRetryMs, longestRetryMs);
    m_nextAttempt = Clock::now() + milliseconds(pause(m_random));
    if (!m_isClosed)
        reportProblem(problem);
}

void MqttFace::reportProblem(const std::string &text)
{
    if (!m_problems.isDue(text, Clock::now()))
        return;
    m_isConnectionReported = false;
    m_report(text);
}

void MqttFace::onReceived(const BrokerLink::Received &received)
{
    const auto gripper = m_topics.gripperOfCommand(received.topic);
    if (!gripper)
        return;
    const auto now = gripper::ReadingTime::now();
    const CommandGate::Decision decision =
        m_gate.decide({*gripper, received.payload, received.isRetained}, m_api.view(now));
    const Origin origin{decision.id, decision.action};
    const auto refuse = [&](const Problem &problem) {
        m_results.addRefusal(
            resultOf(*gripper, origin, {{"code", problem.code()}, {"text", problem.what()}}, now));
    };
    if (!decision.command) {
        refuse(*decision.refusal);
        return;
    }
    try {
        if (!m_results.hasRoom(m_jobs.size()))
            throw Problem(status::tooManyRequests, "too-many", "the broker takes no results");
        const int number = m_api.begin(*decision.command);
        m_jobs[number] = origin;
        const View view = m_api.view(now);
        const Job *job = view.jobs().find(number);
        // Without a free thread, a job ends before it begins.
        if (!job->isRunning())
            finish(*job, view);
    } catch (const Problem &problem) {
        refuse(problem);
    }
}

/// One message at a time waits for its acknowledgement. After a lost connection, it goes out once
/// more.
void MqttFace::sendNext(const View &view)
{
    if (m_inFlight)
        return;
    const Message *const result = m_results.next();
    m_isResultInFlight = result != nullptr;
    if (result != nullptr)
        m_inFlight = m_link.sendAcknowledged(*result);
    else if (const auto event = nextEvent(view))
        m_inFlight = m_link.sendAcknowledged(*event);
}

void MqttFace::onAcknowledged(int number)
{
    if (m_inFlight != number)
        return;
    m_inFlight.reset();
    if (m_isResultInFlight)
        m_results.remove();
    else
        m_event = m_nextEvent;
    if (m_link.canSend())
        sendNext(m_api.view(gripper::ReadingTime::now()));
}

std::optional<Message> MqttFace::nextEvent(const View &view)
{
    const auto &events = view.pictureOf().events().events();
    const auto event = std::find_if(events.begin(), events.end(), [&](const Event &each) {
        return each.number > m_event && each.gripper.has_value();
    });
    if (event == events.end())
        return std::nullopt;
    m_nextEvent = event->number;
    const Json all = view.event(*event);
    const auto found = view.pictureOf().grippers().find(*event->gripper);
    Json content{{"gripper", all["gripper"]}, {"serial", Json()}};
    if (found != view.pictureOf().grippers().end() && found->second.image.serialNumber)
        content["serial"] = *found->second.image.serialNumber;
    for (const char *name : {"number", "kind", "code", "detail", "text"})
        content[name] = all[name];
    content["time"] = all["at"];
    return Message{m_topics.ofGripper(*event->gripper, "event"), textOf(content), false};
}

Message MqttFace::resultOf(int gripper, const Origin &origin, const Json &outcome,
                           const gripper::ReadingTime &now) const
{
    Json content{{"id", origin.id.empty() ? Json() : Json(origin.id)},
                 {"do", origin.action.empty() ? Json() : Json(origin.action)},
                 {"gripper", gripper}};
    content.update(outcome);
    content["time"] = isoTime(now.wall);
    return {m_topics.ofGripper(gripper, "result"), textOf(content), false};
}

} // namespace gateway
