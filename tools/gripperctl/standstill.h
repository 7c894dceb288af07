#pragma once

#include <gripper/image.h>

#include <string>
#include <vector>

namespace gripperctl {

/// Whether the values of a line stand still although its link runs. No variable shows that polling
/// is muted: only values that never change do.
enum class Standstill {
    No,
    Upgrade, ///< a flasher has the line
    Likely,  ///< a gripper moves, but no value changes
    Possible ///< no value changes; the grippers may be at rest
};

/// The word for scripts.
std::string wordOf(Standstill standstill);

/// The cause, for people. Empty while values change.
std::string reasonOf(Standstill standstill);

/// Compares the images of one line with the earlier ones.
class StandstillJudge
{
public:
    /// The images of one period.
    Standstill judge(const std::vector<gripper::Image> &images);

    /// The time since which no value has changed.
    const gripper::ReadingTime &since() const { return m_since; }

private:
    std::vector<gripper::Image> m_last;
    gripper::ReadingTime m_since;
};

/// Whether the gripper changes its values all the time.
bool isInMotion(const gripper::Image &image);

} // namespace gripperctl
