#include "commandgate.h"

#include "api.h"

#include <algorithm>
#include <utility>

namespace gateway {

namespace {

using std::chrono::duration_cast;
using std::chrono::milliseconds;

std::int64_t millisecondsOf(std::chrono::system_clock::time_point time)
{
    return duration_cast<milliseconds>(time.time_since_epoch()).count();
}

/// The id appears in the journal, so it contains no control characters.
std::string idIn(Body &body)
{
    std::string id = body.requiredText("id");
    const bool isPrintable =
        std::all_of(id.begin(), id.end(), [](char c) { return c > ' ' && c <= '~'; });
    if (id.empty() || !isPrintable) {
        throw Problem(status::badRequest, "bad-request",
                      "\"id\" is not a text of 1 to 64 printable ASCII characters");
    }
    return id;
}

/// A movement on old values, or one that the daemon carries out when the line returns, surprises
/// people.
void requireValues(int id, const std::optional<std::string> &serial, const Picture &picture)
{
    const auto gripper = picture.grippers().find(id);
    if (gripper == picture.grippers().end())
        throw Problem(status::notFound, "unknown-gripper", "the daemon has found no such gripper");
    const GripperView &view = gripper->second;
    if (picture.line().condition != LineCondition::Connected || !view.isPresent || view.isStale) {
        throw Problem(status::unavailable, "unavailable",
                      "the gateway has no present values of the gripper");
    }
    if (serial && serial != view.image.serialNumber) {
        throw Problem(status::conflict, "serial",
                      "the gripper with this id has another serial number");
    }
}

} // namespace

const std::array<Action, 7> commandActions{Action::Activate, Action::Deactivate, Action::Move,
                                           Action::Stop,     Action::Release,    Action::Led,
                                           Action::Mode};

CommandGate::CommandGate(std::set<std::string> allowed, const gripper::ReadingTime &start)
    : m_allowed(std::move(allowed))
    , m_forgotten(millisecondsOf(start.wall + longestValidity))
    , m_blockEnd(start.monotonic + longestBlock)
{
}

void CommandGate::advance(const gripper::ReadingTime &now)
{
    const Milliseconds wall = millisecondsOf(now.wall);
    if (wall >= m_forgotten) {
        m_blockEnd.reset();
        return;
    }
    if (!m_blockEnd)
        m_blockEnd = now.monotonic + longestBlock;
    if (now.monotonic < *m_blockEnd)
        return;
    m_forgotten = wall;
    m_blockEnd.reset();
    // Their expiries belong to the clock as it was.
    for (const Known &command : std::exchange(m_known, {}))
        rememberRefused(command.id);
    m_ids.clear();
}

CommandGate::Decision CommandGate::decide(const Incoming &incoming, const View &view)
{
    advance(view.now());
    Decision decision;
    try {
        decision.command = check(incoming, view, decision);
    } catch (const Problem &problem) {
        decision.refusal = problem;
        if (!decision.id.empty() && !isKnown(decision.id))
            rememberRefused(decision.id);
    }
    return decision;
}

Command CommandGate::check(const Incoming &incoming, const View &view, Decision &decision)
{
    if (incoming.payload.size() > maxPayload) {
        throw Problem(status::payloadTooLarge, "too-large", "the command has more than 1024 bytes");
    }
    Body body(incoming.payload);
    decision.id = idIn(body);
    if (incoming.isRetained)
        throw Problem(status::badRequest, "retained", "publish a command without retaining it");
    const auto expires = body.milliseconds("expires");
    if (!expires)
        throw Problem(status::badRequest, "no-expiry", "the member \"expires\" is missing");
    const gripper::ReadingTime &now = view.now();
    checkTime(*expires, now);
    const auto end = now.monotonic + milliseconds(*expires - millisecondsOf(now.wall));
    remember({decision.id, *expires, end}, now.monotonic);
    decision.action = body.requiredText("do");

    Command command;
    command.action = allowedAction(decision.action);
    command.gripper = incoming.gripper;
    command.role = Role::Operate;
    command.peer = "MQTT, id " + decision.id;
    command.latestBegin = end;
    Api::readValues(command, body);
    const auto serial = body.text("serial");
    body.finish();
    requireValues(incoming.gripper, serial, view.pictureOf());
    if (command.action != Action::Stop && view.lease().holder())
        throw Problem(status::conflict, "held", "a page has control of the grippers");
    return command;
}

void CommandGate::checkTime(Milliseconds expires, const gripper::ReadingTime &now) const
{
    const Milliseconds wall = millisecondsOf(now.wall);
    if (expires <= wall)
        throw Problem(status::conflict, "expired", "the command has expired; compare the clocks");
    if (expires - wall > longestValidity.count()) {
        throw Problem(status::conflict, "too-far-ahead",
                      "the command expires in more than 5 s; compare the clocks");
    }
    if (m_blockEnd && expires <= m_forgotten) {
        const auto left = std::min(milliseconds(m_forgotten - wall),
                                   duration_cast<milliseconds>(*m_blockEnd - now.monotonic));
        const auto seconds = duration_cast<std::chrono::seconds>(left).count() + 1;
        throw Problem(status::conflict, "too-early",
                      "the gateway has just started, or its clock was set back, so it cannot know "
                      "whether it has seen this id: send a new command in " +
                          std::to_string(seconds) + " s");
    }
}

void CommandGate::remember(const Known &command, Clock::time_point now)
{
    if (isKnown(command.id))
        throw Problem(status::conflict, "repeated", "the gateway has seen this id before");
    if (m_known.size() >= maxIds) {
        const Known &oldest = m_known.front();
        if (oldest.end > now)
            throw Problem(status::tooManyRequests, "too-many", "there are too many commands");
        m_forgotten = std::max(m_forgotten, oldest.expires);
        m_ids.erase(oldest.id);
        m_known.pop_front();
    }
    m_known.push_back(command);
    m_ids.insert(command.id);
}

/// A second delivery of a refused command must not succeed later.
void CommandGate::rememberRefused(const std::string &id)
{
    if (m_refused.size() >= maxIds)
        m_refused.pop_front();
    m_refused.push_back(id);
}

bool CommandGate::isKnown(const std::string &id) const
{
    return m_ids.count(id) != 0 ||
           std::find(m_refused.begin(), m_refused.end(), id) != m_refused.end();
}

Action CommandGate::allowedAction(const std::string &name) const
{
    const auto *const action = std::find_if(commandActions.begin(), commandActions.end(),
                                            [&](Action each) { return name == nameOf(each); });
    if (action == commandActions.end() || m_allowed.count(name) == 0) {
        throw Problem(status::forbidden, "not-allowed",
                      "the gateway's option --allow does not name this action");
    }
    return *action;
}

} // namespace gateway
