#include "standstill.h"

#include "gripperview.h"

#include <algorithm>
#include <tuple>

namespace gripperctl {

namespace {

// Four grippers are visited and written in less time.
constexpr gripper::Seconds likelyAfter{2};
constexpr gripper::Seconds possibleAfter{5};

/// The values that the daemon reads from the gripper. It shows other values as clients set them,
/// also while polling is muted.
auto readingsOf(const gripper::Image &image)
{
    return std::tie(image.id, image.requestedPosition, image.goTo, image.active, image.status,
                    image.fault, image.object, image.position, image.current, image.vacuumStatus,
                    image.mode, image.cycles, image.pumpSeconds, image.pumpStarts);
}

bool isSame(const gripper::Image &left, const gripper::Image &right)
{
    return readingsOf(left) == readingsOf(right);
}

} // namespace

std::string wordOf(Standstill standstill)
{
    constexpr const char *words[] = {"no", "upgrade", "likely", "possible"};
    return words[static_cast<std::size_t>(standstill)];
}

std::string reasonOf(Standstill standstill)
{
    constexpr const char *reasons[] = {"", "a flasher has the line",
                                       "polling may be muted (gripperctl set MUTE 0)",
                                       "at rest, or polling is muted"};
    return reasons[static_cast<std::size_t>(standstill)];
}

bool isInMotion(const gripper::Image &image)
{
    return image.object == static_cast<int>(gripper::Object::Moving) ||
           hasStatus(image, gripper::Status::Activating);
}

Standstill StandstillJudge::judge(const std::vector<gripper::Image> &images)
{
    const bool isUnchanged =
        std::equal(images.begin(), images.end(), m_last.begin(), m_last.end(), isSame);
    if (!isUnchanged || images.empty())
        m_since = gripper::ReadingTime::now();
    m_last = images;
    const auto isUpgrading = [](const gripper::Image &image) { return image.line.upgrading; };
    if (std::any_of(images.begin(), images.end(), isUpgrading))
        return Standstill::Upgrade;
    const gripper::Seconds age = std::chrono::steady_clock::now() - m_since.monotonic;
    if (age >= likelyAfter && std::any_of(images.begin(), images.end(), isInMotion))
        return Standstill::Likely;
    return age >= possibleAfter ? Standstill::Possible : Standstill::No;
}

} // namespace gripperctl
