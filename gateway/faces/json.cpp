#include "json.h"

#include "families.h"
#include "grip.h"
#include "identity.h"

#include <gripper/gripper.h>
#include <version.h>

#include <array>
#include <cmath>
#include <cstddef>
#include <ctime>

namespace gateway {

namespace {

constexpr double millisecondsPerSecond = 1000;
constexpr std::chrono::minutes endedJobShown{10};

template <typename Value>
Json jsonOf(const std::optional<Value> &value)
{
    return value ? Json(*value) : Json();
}

double rounded(double seconds)
{
    return std::round(seconds * millisecondsPerSecond) / millisecondsPerSecond;
}

/// The name of a code, or null without a value or for a code that has no name.
template <std::size_t count>
Json named(const std::optional<int> &code, const std::array<const char *, count> &names)
{
    if (!code || *code < 0 || static_cast<std::size_t>(*code) >= count)
        return {};
    return names[static_cast<std::size_t>(*code)];
}

constexpr std::array<const char *, 4> statusNames{"inactive", "activating", "releasing", "active"};
constexpr std::array<const char *, 4> vacuumNames{"none", "rising", "held", "leak"};

const char *nameOf(EventKind kind)
{
    switch (kind) {
    case EventKind::Fault:
        return "fault";
    case EventKind::FaultCleared:
        return "fault-cleared";
    case EventKind::Arrived:
        return "arrived";
    case EventKind::ObjectMet:
        return "object-met";
    case EventKind::ObjectLost:
        return "object-lost";
    case EventKind::Found:
        return "found";
    case EventKind::Missing:
        return "missing";
    case EventKind::OtherCommand:
        return "other-command";
    case EventKind::Link:
        return "link";
    case EventKind::Control:
        return "control";
    case EventKind::Broker:
        return "broker";
    }
    return "";
}

Json ledOf(const gripper::Image &image)
{
    if (!image.ledBypass)
        return {};
    return {{"auto", !*image.ledBypass},
            {"red", image.ledRed.value_or(false)},
            {"green", image.ledGreen.value_or(false)},
            {"blue", image.ledBlue.value_or(false)}};
}

Json outcomeOf(const JobOutcome &outcome)
{
    Json json{{"code", outcome.code}, {"text", outcome.text}};
    if (!outcome.unknown.empty())
        json["unknown"] = outcome.unknown;
    if (outcome.hasMetObject)
        json["object"] = *outcome.hasMetObject ? "met" : "reached";
    if (outcome.position)
        json["position"] = *outcome.position;
    if (outcome.current)
        json["current"] = *outcome.current;
    if (outcome.firmware)
        json["firmware"] = *outcome.firmware;
    if (outcome.fault)
        json["fault"] = *outcome.fault;
    if (outcome.ids)
        json["ids"] = *outcome.ids;
    return json;
}

/// Long lists are written without a tree of JSON values, which takes twenty times as long.
template <typename Samples, typename Write>
void appendList(std::string &text, const char *name, const Samples &samples, Write write)
{
    text += std::string(",\"") + name + "\":[";
    bool isFirst = true;
    for (const auto &sample : samples) {
        if (!isFirst)
            text += ',';
        isFirst = false;
        write(sample);
    }
    text += ']';
}

} // namespace

std::string textOf(const Json &json)
{
    // A peer may have sent bytes that are not UTF-8.
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

std::string isoTime(std::chrono::system_clock::time_point time)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(time);
    const auto part = std::chrono::duration_cast<std::chrono::milliseconds>(
        time - std::chrono::system_clock::from_time_t(seconds));
    std::tm local{};
    localtime_r(&seconds, &local);
    constexpr std::size_t longest = 64;
    std::array<char, longest> date{};
    std::array<char, longest> offset{};
    std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &local);
    std::strftime(offset.data(), offset.size(), "%z", &local);
    // "+0200" becomes "+02:00".
    std::string zone = offset.data();
    constexpr std::size_t hours = 3;
    if (zone.size() > hours)
        zone.insert(hours, ":");
    constexpr int thousand = 1000;
    const auto milliseconds = static_cast<int>(part.count());
    return std::string(date.data()) + '.' + std::to_string(thousand + milliseconds).substr(1) +
           zone;
}

double secondsBetween(Clock::time_point begin, Clock::time_point end)
{
    return std::max(0.0, rounded(std::chrono::duration<double>(end - begin).count()));
}

double View::clock(Clock::time_point time) const
{
    return secondsBetween(m_picture.start().monotonic, time);
}

Json View::times() const
{
    return {{"clock", clock(m_now.monotonic)}, {"at", isoTime(m_now.wall)}};
}

Json View::picture() const
{
    Json json = times();
    json["gateway"] = {{"version", tools::version},
                       {"name", machineName()},
                       {"started", isoTime(m_picture.start().wall)},
                       {"instance", instanceName()}};
    json["line"] = line();
    json["grippers"] = Json::array();
    for (const auto &entry : m_picture.grippers())
        json["grippers"].push_back(gripper(entry.second));
    json["control"] = control();
    json["jobs"] = Json::array();
    for (const Job &each : m_jobs.jobs()) {
        if (!each.ended || m_now.monotonic - *each.ended < endedJobShown)
            json["jobs"].push_back(job(each));
    }
    json["events"] = Json::array();
    for (const Event &each : m_picture.events().events())
        json["events"].push_back(event(each));
    return json;
}

Json View::viewer(const Viewer &viewer) const
{
    Json json{{"role", nameOf(viewer.role)}, {"paired", viewer.end.has_value()}};
    json["expiresInSeconds"] =
        viewer.end ? Json(secondsBetween(m_now.monotonic, *viewer.end)) : Json();
    return json;
}

Json View::changesSince(std::uint64_t version) const
{
    Json json = times();
    json["line"] = line();
    json["grippers"] = Json::array();
    for (const auto &entry : m_picture.grippers()) {
        if (entry.second.version > version)
            json["grippers"].push_back(gripper(entry.second));
    }
    json["removed"] = Json::array();
    for (const auto &[id, removal] : m_picture.removed()) {
        if (removal > version)
            json["removed"].push_back(id);
    }
    json["control"] = control();
    return json;
}

Json View::event(const Event &event) const
{
    return {{"number", event.number},
            {"at", isoTime(event.time.wall)},
            {"clock", clock(event.time.monotonic)},
            {"ageSeconds", secondsBetween(event.time.monotonic, m_now.monotonic)},
            {"kind", nameOf(event.kind)},
            {"gripper", jsonOf(event.gripper)},
            {"code", jsonOf(event.code)},
            {"detail", jsonOf(event.detail)},
            {"text", event.text}};
}

Json View::job(const Job &job) const
{
    const char *state = "running";
    if (job.outcome)
        state = job.outcome->code == "ok" ? "done" : "failed";
    return {{"id", job.id},
            {"action", nameOf(job.action)},
            {"gripper", jsonOf(job.gripper)},
            {"state", state},
            {"stage", job.stage.empty() ? Json() : Json(job.stage)},
            {"role", nameOf(job.role)},
            {"started", isoTime(job.started.wall)},
            {"ageSeconds", secondsBetween(job.started.monotonic, m_now.monotonic)},
            {"elapsedSeconds",
             secondsBetween(job.started.monotonic, job.ended.value_or(m_now.monotonic))},
            {"outcome", job.outcome ? outcomeOf(*job.outcome) : Json()}};
}

Json View::control() const
{
    const auto &holder = m_lease.holder();
    if (!holder)
        return {};
    return {{"number", holder->number},
            {"role", nameOf(holder->claimant.role)},
            {"peer", holder->claimant.peer},
            {"since", isoTime(holder->since.wall)},
            {"sinceSeconds", secondsBetween(holder->since.monotonic, m_now.monotonic)},
            {"expiresInSeconds", secondsBetween(m_now.monotonic, holder->end)}};
}

std::string View::history(int gripper, const History &history, std::chrono::seconds span) const
{
    const auto end = m_now.monotonic - m_picture.start().monotonic;
    const auto begin = std::chrono::duration_cast<std::chrono::milliseconds>(end - span);
    const auto samples = history.since(begin);
    Json head = times();
    head["gripper"] = gripper;
    head["seconds"] = span.count();
    std::string text = textOf(head);
    text.pop_back();
    constexpr std::size_t bytesPerSample = 24;
    text.reserve(text.size() + samples.size() * bytesPerSample);
    appendList(text, "t", samples, [&](const History::Sample &sample) {
        constexpr int thousand = 1000;
        const auto milliseconds = sample.time.count();
        text += std::to_string(milliseconds / thousand) + '.' +
                std::to_string(thousand + milliseconds % thousand).substr(1);
    });
    const auto append = [&](const char *name, std::uint8_t History::Sample::*value) {
        appendList(text, name, samples, [&](const History::Sample &sample) {
            text += sample.hasValues ? std::to_string(sample.*value) : "null";
        });
    };
    append("position", &History::Sample::position);
    append("request", &History::Sample::request);
    append("current", &History::Sample::current);
    return text + '}';
}

Json View::line() const
{
    const LineView &line = m_picture.line();
    return {{"state", nameOf(line.condition)},
            {"text", line.text},
            {"sinceSeconds", secondsBetween(line.since.monotonic, m_now.monotonic)},
            {"since", isoTime(line.since.wall)},
            {"valueAgeSeconds", age(line.valueAt)},
            {"stale", line.isStale},
            // The daemon does not show it.
            {"muted", m_isMuted ? Json(true) : Json()},
            {"version", jsonOf(line.version)}};
}

Json View::gripper(const GripperView &view) const
{
    const gripper::Image &image = view.image;
    const Family *family = familyOf(image.firmware);
    const bool isVacuum = family != nullptr && family->isVacuum;
    const bool isMoving = image.active == true && image.goTo == true &&
                          image.object == static_cast<int>(gripper::Object::Moving);
    Json fault;
    if (image.fault.value_or(0) != 0)
        fault = {{"code", *image.fault}, {"text", jsonOf(m_picture.faultText(image))}};
    return {{"id", image.id},
            {"present", view.isPresent},
            {"stale", view.isStale},
            {"missingSeconds", age(view.missingSince)},
            {"valueAgeSeconds", age(view.valueAt)},
            {"family", family == nullptr ? "" : family->name},
            {"kind", isVacuum ? "vacuum" : "fingers"},
            {"firmware", jsonOf(image.firmware)},
            {"serial", jsonOf(image.serialNumber)},
            {"year", jsonOf(image.productionYear)},
            {"status", named(image.status, statusNames)},
            {"active", image.active.value_or(false)},
            {"moving", isMoving},
            {"goTo", jsonOf(image.goTo)},
            {"mode", jsonOf(image.mode)},
            {"position", jsonOf(image.position)},
            {"request", jsonOf(view.request)},
            {"echo", jsonOf(image.requestedPosition)},
            {"speed", jsonOf(image.speed)},
            {"force", jsonOf(image.force)},
            {"current", jsonOf(image.current)},
            {"object", named(image.object, objectNames)},
            {"vacuum", isVacuum ? named(image.vacuumStatus, vacuumNames) : Json()},
            {"fault", fault},
            {"led", ledOf(image)},
            {"cycles", jsonOf(image.cycles)},
            {"pumpSeconds", isVacuum ? jsonOf(image.pumpSeconds) : Json()},
            {"pumpStarts", isVacuum ? jsonOf(image.pumpStarts) : Json()},
            {"commandedByOther", view.isCommandedByOther},
            {"otherCommandAgeSeconds", age(view.otherCommandAt)}};
}

Json View::age(std::optional<Clock::time_point> time) const
{
    return time ? Json(secondsBetween(*time, m_now.monotonic)) : Json();
}

} // namespace gateway
