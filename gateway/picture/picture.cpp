#include "picture.h"

#include "families.h"
#include "grip.h"

#include <gripper/gripper.h>

#include <algorithm>
#include <string_view>
#include <tuple>
#include <utility>

namespace gateway {

namespace {

using gripper::Image;
using gripper::Object;

std::string nameOfGripper(int id)
{
    return "gripper " + std::to_string(id);
}

bool has(const std::optional<int> &value, Object object)
{
    return value == static_cast<int>(object);
}

/// All values as a text, to compare them.
std::string valuesOf(const Image &image)
{
    std::string text;
    const auto append = [&](std::string_view, const auto &value) {
        if (value) {
            if constexpr (std::is_same_v<decltype(value), const std::optional<std::string> &>)
                text += *value;
            else
                text += std::to_string(*value);
        }
        text += ';';
    };
    gripper::forEachValue(static_cast<const gripper::Values &>(image), append);
    return text;
}

/// Whether the action may change the requested position to one that the gateway does not know.
bool changesPosition(Action action)
{
    switch (action) {
    case Action::Activate:
    case Action::Deactivate:
    case Action::Release:
    case Action::Scan:
    case Action::Rename:
    case Action::Upgrade:
        return true;
    case Action::Move:
    case Action::Stop:
    case Action::Led:
    case Action::Mode:
        return false;
    }
    return true;
}

LineCondition conditionOf(const gripper::LineState &state)
{
    if (state.upgrading)
        return LineCondition::Upgrading;
    if (state.running)
        return LineCondition::Connected;
    if (state.scanning)
        return LineCondition::Scanning;
    return state.text == "ERR_TIMEOUT" ? LineCondition::TimedOut : LineCondition::Gone;
}

std::string sentenceOf(const LineView &line)
{
    switch (line.condition) {
    case LineCondition::Connecting:
        return "the gateway connects to the daemon";
    case LineCondition::Connected:
        return "the line runs";
    case LineCondition::Scanning:
        return "the daemon looks for grippers";
    case LineCondition::TimedOut:
        return "a gripper stopped answering";
    case LineCondition::Gone:
        return "the serial port failed: " + line.text;
    case LineCondition::Upgrading:
        return "a firmware upgrade has the line";
    case LineCondition::NoDaemon:
        return "the daemon does not answer: " + line.text;
    }
    return {};
}

} // namespace

const char *nameOf(LineCondition condition)
{
    switch (condition) {
    case LineCondition::Connecting:
        return "connecting";
    case LineCondition::Connected:
        return "connected";
    case LineCondition::Scanning:
        return "scanning";
    case LineCondition::TimedOut:
        return "timed-out";
    case LineCondition::Gone:
        return "gone";
    case LineCondition::Upgrading:
        return "upgrading";
    case LineCondition::NoDaemon:
        return "no-daemon";
    }
    return "";
}

Picture::Picture(FaultTexts faultTexts, const gripper::ReadingTime &start)
    : m_faultTexts(std::move(faultTexts))
    , m_start(start)
{
    m_line.since = start;
}

void Picture::take(const Reading &reading)
{
    LineView line = m_line;
    if (reading.line) {
        const gripper::LineState state = reading.line->state();
        line.condition = conditionOf(state);
        line.text = state.text;
        line.version = reading.line->driver;
    } else {
        line.condition = LineCondition::NoDaemon;
        line.text = reading.problem;
    }
    if (line.condition != m_line.condition)
        line.since = reading.time;
    const bool hasValues = line.condition == LineCondition::Connected;
    if (hasValues) {
        for (const Image &image : reading.images) {
            if (!image.stale)
                line.valueAt = reading.time.monotonic;
        }
    }
    setLine(std::move(line));
    if (hasValues) {
        for (const Image &image : reading.images) {
            if (!image.stale)
                takeImage(image);
        }
        takeList(reading.line->ids.value_or(std::vector<int>()), reading.time);
    }
    advance(reading.time);
}

void Picture::advance(const gripper::ReadingTime &now)
{
    for (auto gripper = m_grippers.begin(); gripper != m_grippers.end();) {
        GripperView &view = gripper->second;
        const bool isOld = now.monotonic - view.valueAt > staleAfter;
        setStale(view, !view.isPresent || isOld || m_line.condition != LineCondition::Connected);
        if (view.isStale)
            m_histories[gripper->first].addGap(sinceStart(now.monotonic));
        const bool isCommandedByOther =
            view.otherCommandAt && now.monotonic - *view.otherCommandAt < otherCommandShown;
        if (view.isCommandedByOther != isCommandedByOther) {
            view.isCommandedByOther = isCommandedByOther;
            view.version = ++m_version;
        }
        const auto next = std::next(gripper);
        if (view.missingSince && now.monotonic - *view.missingSince > forgetMissingAfter)
            remove(gripper);
        gripper = next;
    }
    const bool isStale = m_line.condition != LineCondition::Connected || !m_line.valueAt ||
                         now.monotonic - *m_line.valueAt > staleAfter;
    if (m_line.isStale != isStale) {
        m_line.isStale = isStale;
        m_lineVersion = ++m_version;
    }
}

void Picture::beginCommand(const Command &command)
{
    OwnCommand &own = m_ownCommands[*command.gripper];
    if (own.running == 0)
        own = {};
    ++own.running;
    own.changesPosition = own.changesPosition || changesPosition(command.action);
    if (command.action != Action::Move)
        return;
    own.positions.insert(command.position);
    const auto gripper = m_grippers.find(*command.gripper);
    if (gripper != m_grippers.end()) {
        gripper->second.request = command.position;
        gripper->second.version = ++m_version;
    }
}

void Picture::endCommand(int id, Clock::time_point now)
{
    OwnCommand &command = m_ownCommands[id];
    --command.running;
    command.end = now;
}

void Picture::addEvent(Event event, const gripper::ReadingTime &time)
{
    m_events.add(std::move(event), time);
}

const History *Picture::history(int id) const
{
    const auto history = m_histories.find(id);
    return history == m_histories.end() ? nullptr : &history->second;
}

std::optional<std::string> Picture::faultText(const gripper::Image &image) const
{
    const Family *family = familyOf(image.firmware);
    if (family == nullptr || !image.fault)
        return std::nullopt;
    return m_faultTexts.text(family->name, *image.fault);
}

void Picture::setLine(LineView line)
{
    const bool conditionChanges = line.condition != m_line.condition;
    if (conditionChanges || line.text != m_line.text || line.version != m_line.version)
        m_lineVersion = ++m_version;
    m_line = std::move(line);
    if (conditionChanges)
        m_events.add({EventKind::Link, {}, {}, nameOf(m_line.condition), sentenceOf(m_line), 0, {}},
                     m_line.since);
}

void Picture::takeImage(const gripper::Image &image)
{
    removeFormerIdOf(image);
    const auto [gripper, isNew] = m_grippers.try_emplace(image.id);
    GripperView &view = gripper->second;
    if (isNew) {
        m_removed.erase(image.id);
        view.version = ++m_version;
    }
    if (isNew || view.missingSince) {
        addGripperEvent(EventKind::Found, image, "the daemon has found " + nameOfGripper(image.id));
        view.missingSince.reset();
        view.isPresent = true;
        view.version = ++m_version;
    } else {
        findEvents(view, image);
        if (!haveSameRequest(view.image, image) && !isOwnCommand(view.image, image)) {
            view.otherCommandAt = image.time.monotonic;
            view.request.reset();
            view.version = ++m_version;
            addGripperEvent(EventKind::OtherCommand, image,
                            "another client commanded " + nameOfGripper(image.id));
        }
    }
    if (!isNew && valuesOf(view.image) != valuesOf(image))
        view.version = ++m_version;
    view.image = image;
    view.valueAt = image.time.monotonic;
    m_histories[image.id].add(sinceStart(image.time.monotonic), image);
}

void Picture::takeList(const std::vector<int> &listed, const gripper::ReadingTime &time)
{
    for (auto &[id, view] : m_grippers) {
        const bool isListed = std::find(listed.begin(), listed.end(), id) != listed.end();
        if (isListed || !view.isPresent)
            continue;
        view.isPresent = false;
        view.missingSince = time.monotonic;
        view.version = ++m_version;
        Event event{EventKind::Missing, id, {}, {}, nameOfGripper(id) + " is missing", 0, {}};
        m_events.add(std::move(event), time);
    }
}

/// A gripper that got a new id does not stay in the picture with its old one.
void Picture::removeFormerIdOf(const gripper::Image &image)
{
    if (!image.serialNumber)
        return;
    const auto former =
        std::find_if(m_grippers.begin(), m_grippers.end(), [&](const auto &gripper) {
            return gripper.first != image.id && !gripper.second.isPresent &&
                   gripper.second.image.serialNumber == image.serialNumber;
        });
    if (former != m_grippers.end())
        remove(former);
}

void Picture::findEvents(const GripperView &view, const gripper::Image &next)
{
    findFault(view.image, next);
    findObject(view.image, next);
}

void Picture::findFault(const gripper::Image &before, const gripper::Image &next)
{
    const int code = next.fault.value_or(0);
    const int former = before.fault.value_or(0);
    if (code == former)
        return;
    const std::string name = nameOfGripper(next.id);
    Event event;
    event.gripper = next.id;
    if (code == 0) {
        event.kind = EventKind::FaultCleared;
        event.code = former;
        event.text = name + " has no fault";
    } else {
        event.kind = EventKind::Fault;
        event.code = code;
        event.detail = faultText(next);
        event.text = name + " has fault " + std::to_string(code);
        if (event.detail)
            event.text += ": " + *event.detail;
    }
    m_events.add(std::move(event), next.time);
}

void Picture::findObject(const gripper::Image &before, const gripper::Image &next)
{
    const std::string name = nameOfGripper(next.id);
    if (holdsObject(next) && !holdsObject(before)) {
        addGripperEvent(EventKind::ObjectMet, next, name + " holds an object");
    } else if (holdsObject(before) && !holdsObject(next) && haveSameRequest(before, next) &&
               next.goTo == true) {
        addGripperEvent(EventKind::ObjectLost, next, name + " has lost its object");
    } else if (!isVacuum(next) && has(next.object, Object::Reached) && next.active == true &&
               (has(before.object, Object::Moving) || !haveSameRequest(before, next))) {
        addGripperEvent(EventKind::Arrived, next, name + " has arrived");
    }
}

/// A gripper that restarts loses its request. This is no command of another client.
bool Picture::isOwnCommand(const gripper::Image &before, const gripper::Image &next) const
{
    const int inactive = static_cast<int>(gripper::Status::Inactive);
    if (next.status == inactive && before.status != inactive)
        return true;
    const auto found = m_ownCommands.find(next.id);
    if (found == m_ownCommands.end())
        return false;
    const OwnCommand &command = found->second;
    const bool isTimely = command.running > 0 || next.time.monotonic - command.end < echoTime;
    const bool isPositionOurs = before.requestedPosition == next.requestedPosition ||
                                command.changesPosition ||
                                command.positions.count(next.requestedPosition.value_or(-1)) > 0;
    return isTimely && isPositionOurs;
}

void Picture::addGripperEvent(EventKind kind, const gripper::Image &image, const std::string &text)
{
    m_events.add({kind, image.id, {}, {}, text, 0, {}}, image.time);
}

void Picture::setStale(GripperView &view, bool isStale)
{
    if (view.isStale == isStale)
        return;
    view.isStale = isStale;
    view.version = ++m_version;
}

void Picture::remove(std::map<int, GripperView>::iterator gripper)
{
    const int id = gripper->first;
    m_grippers.erase(gripper);
    m_histories.erase(id);
    m_removed[id] = ++m_version;
}

std::chrono::milliseconds Picture::sinceStart(Clock::time_point time) const
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(time - m_start.monotonic);
}

} // namespace gateway
