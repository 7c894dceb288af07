#include "statepublisher.h"

#include <gripper/line.h>

#include <initializer_list>
#include <set>

namespace gateway {

namespace {

Json selected(const Json &all, std::initializer_list<const char *> names)
{
    Json part = Json::object();
    for (const char *name : names)
        part[name] = all.at(name);
    return part;
}

Json grippersOf(const Picture &picture)
{
    Json list = Json::array();
    for (const auto &[id, view] : picture.grippers()) {
        const auto &serial = view.image.serialNumber;
        list.push_back(
            {{"id", id}, {"serial", serial ? Json(*serial) : Json()}, {"present", view.isPresent}});
    }
    return {{"grippers", list}};
}

} // namespace

void StatePublisher::forget()
{
    m_sent.clear();
    m_version = 0;
    m_isFirst = true;
}

std::vector<Message> StatePublisher::due(const View &view)
{
    std::vector<Message> messages;
    const Picture &picture = view.pictureOf();
    if (picture.version() == m_version)
        return messages;
    m_version = picture.version();
    offer(messages, m_topics.link(),
          selected(view.line(), {"state", "text", "stale", "since", "version"}), view);
    offer(messages, m_topics.grippers(), grippersOf(picture), view);
    for (const auto &entry : picture.grippers()) {
        const Json gripper = view.gripper(entry.second);
        offer(messages, m_topics.ofGripper(entry.first, "info"),
              selected(gripper, {"id", "serial", "family", "kind", "firmware", "year"}), view);
        offer(
            messages, m_topics.ofGripper(entry.first, "state"),
            selected(gripper,
                     {"id",     "serial",      "present",    "stale",           "status", "active",
                      "moving", "goTo",        "mode",       "position",        "echo",   "speed",
                      "force",  "current",     "object",     "vacuum",          "fault",  "led",
                      "cycles", "pumpSeconds", "pumpStarts", "commandedByOther"}),
            view);
    }
    clearAbsent(messages, view);
    return messages;
}

void StatePublisher::offer(std::vector<Message> &messages, const std::string &topic, Json content,
                           const View &view)
{
    const std::string text = textOf(content);
    const auto [sent, isNew] = m_sent.try_emplace(topic);
    if (!isNew && sent->second.content == text)
        return;
    const gripper::ReadingTime &now = view.now();
    if (!isNew && now.monotonic - sent->second.time < shortestPause) {
        // The next call looks again.
        m_version = 0;
        return;
    }
    sent->second = {text, now.monotonic};
    content["time"] = isoTime(now.wall);
    messages.push_back({topic, textOf(content), true});
}

/// The broker may keep topics from an earlier gateway, which claim fresh values. The daemon finds
/// only a few ids.
void StatePublisher::clearAbsent(std::vector<Message> &messages, const View &view)
{
    const Picture &picture = view.pictureOf();
    const bool clearsUnknown = m_isFirst && picture.line().condition != LineCondition::Connecting;
    std::set<int> absent;
    for (const auto &removed : picture.removed())
        absent.insert(removed.first);
    if (clearsUnknown) {
        absent.insert(gripper::Line::scannedIds.begin(), gripper::Line::scannedIds.end());
        m_isFirst = false;
    }
    for (const int id : absent) {
        const bool isSent = m_sent.count(m_topics.ofGripper(id, "info")) != 0;
        if (picture.grippers().count(id) == 0 && (clearsUnknown || isSent))
            clear(messages, id);
    }
}

void StatePublisher::clear(std::vector<Message> &messages, int gripper)
{
    for (const char *word : {"info", "state"}) {
        const std::string topic = m_topics.ofGripper(gripper, word);
        m_sent.erase(topic);
        messages.push_back({topic, "", true});
    }
}

} // namespace gateway
