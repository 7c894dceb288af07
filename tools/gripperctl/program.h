#pragma once

#include "output.h"

#include <gripper/line.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace gripperctl {

/// The general options.
struct Settings
{
    std::vector<gripper::Endpoint> endpoints{gripper::Endpoint()};
    std::optional<int> gripper;
    std::optional<gripper::Seconds> timeout;
};

/// Gives a command its options, its output and its connections.
class Program
{
public:
    static constexpr int defaultGripper = 9;

    Settings &settings() { return m_settings; }
    Output &output() { return m_output; }

    /// The daemon of a command that has only one. Throws Failure if the user named several.
    const gripper::Endpoint &endpoint() const;

    /// Calls `work` for each daemon, also after a failure. Throws the last failure and prints the
    /// others.
    void forEachHost(const std::function<void(const gripper::Endpoint &)> &work);

    /// The value of --timeout, or `standard` without this option.
    gripper::Seconds timeoutOr(gripper::Seconds standard) const;

    /// The way to wait: shows the time of the stage, and throws Interrupted after a signal.
    gripper::Options options();

    /// Waits without traffic.
    void pause(gripper::Seconds time);

    gripper::Line line() { return gripper::Line(endpoint(), options()); }

    /// The id of --gripper, or 9.
    int gripperId() const { return m_settings.gripper.value_or(defaultGripper); }

    /// The same. Throws Failure if the daemon does not list it.
    int listedGripperId();

    /// The gripper with this id.
    gripper::Gripper gripper() { return line().gripper(listedGripperId()); }

    /// Prints the result of a command for one gripper: `text` after its name, or JSON with
    /// `members`.
    void report(int id, const std::string &text, const Json &members = Json::object());

    /// Shows `stage` while `work` runs. Its errors name the commands that help.
    template <typename Work>
    void await(int id, const std::string &stage, Work work)
    {
        m_output.begin("gripper " + std::to_string(id) + ": " + stage);
        try {
            work();
        } catch (const gripper::TimedOut &error) {
            throw explained(error);
        } catch (const gripper::GripperMissing &error) {
            throw explained(error);
        }
        m_output.endStage();
    }

    /// Runs `work`, which mutes polling. The library unmutes after an error, and does not report
    /// that this failed.
    template <typename Work>
    void muting(Work work)
    {
        try {
            work();
        } catch (const gripper::Error &) {
            noteMuting();
            throw;
        }
    }

private:
    static Failure explained(const gripper::TimedOut &error);
    Failure explained(const gripper::GripperMissing &error);
    void noteMuting();

    Settings m_settings;
    Output m_output;
};

/// Throws Failure unless `listed` contains `id`. Another gripper is never a replacement: the wanted
/// one may be missing for a moment only.
void refuseUnlisted(int id, const std::vector<int> &listed, const std::string &link);

} // namespace gripperctl
