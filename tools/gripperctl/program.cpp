#include "program.h"

#include "interruption.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

// The daemon answers nothing for up to five seconds while it looks for a bootloader.
constexpr gripper::Seconds answerTimeout{10};

} // namespace

const gripper::Endpoint &Program::endpoint() const
{
    if (m_settings.endpoints.size() > 1)
        throw Failure(ExitCode::WrongUsage,
                      "this command takes one --host; only status and watch take several");
    return m_settings.endpoints.front();
}

void Program::forEachHost(const std::function<void(const gripper::Endpoint &)> &work)
{
    std::optional<Failure> last;
    const auto keep = [&](const Failure &failure) {
        if (last)
            m_output.problem(*last);
        last = failure;
    };
    for (const gripper::Endpoint &endpoint : m_settings.endpoints) {
        try {
            work(endpoint);
        } catch (const Interrupted &) {
            throw;
        } catch (const gripper::Error &error) {
            keep(failureOf(error));
        } catch (const Failure &failure) {
            keep(failure);
        }
    }
    if (last)
        throw Failure(*last);
}

gripper::Seconds Program::timeoutOr(gripper::Seconds standard) const
{
    return m_settings.timeout.value_or(standard);
}

gripper::Options Program::options()
{
    catchInterruptions();
    return {timeoutOr(answerTimeout), [this] {
                throwIfInterrupted();
                m_output.tick();
            }};
}

void Program::pause(gripper::Seconds time)
{
    // It connects with the first exchange only.
    gripper::Connection(gripper::Endpoint(), options()).pause(time, gripper::Deadline(time));
}

int Program::listedGripperId()
{
    const gripper::LineImage image = line().image();
    refuseUnlisted(gripperId(), image.ids.value_or(std::vector<int>()), image.link.value_or("?"));
    return gripperId();
}

void Program::report(int id, const std::string &text, const Json &members)
{
    Json json{{"gripper", id}};
    json.update(members);
    json["text"] = text;
    m_output.result(concat("gripper ", id, ' ', text), json);
}

Failure Program::explained(const gripper::TimedOut &error)
{
    const std::string text = error.what();
    const bool isMuted = text.find("muted") != std::string::npos;
    return {ExitCode::TimedOut, isMuted ? text + ": unmute it with gripperctl set MUTE 0" : text};
}

Failure Program::explained(const gripper::GripperMissing &error)
{
    return {ExitCode::NoGripper,
            concat("gripper ", error.id(), " has disappeared from the line (link: ",
                   line().state().text, "): check its cable and power, then run gripperctl scan")};
}

void Program::noteMuting()
{
    try {
        gripper::Line(endpoint()).image();
    } catch (const gripper::Error &) {
        m_output.note("polling may still be muted: unmute it with gripperctl set MUTE 0");
    }
}

void refuseUnlisted(int id, const std::vector<int> &listed, const std::string &link)
{
    if (listed.empty()) {
        throw Failure(ExitCode::NoGripper,
                      concat("the daemon has found no gripper (link: ", link,
                             "): are the grippers switched on, and is the line plugged in?"));
    }
    if (std::find(listed.begin(), listed.end(), id) != listed.end())
        return;
    throw Failure(ExitCode::NoGripper,
                  concat("the daemon does not list gripper ", id, " (listed: ", join(listed),
                         "): use --gripper ID, or look again with gripperctl scan"));
}

} // namespace gripperctl
