#include "snapshot.h"

#include "gripperview.h"
#include "text.h"

#include <algorithm>

namespace gripperctl {

namespace {

constexpr gripper::Seconds lookInterval{0.05};

/// The images of the grippers that the daemon still lists.
std::vector<gripper::Image> imagesOf(std::vector<gripper::Gripper> &grippers)
{
    std::vector<gripper::Image> images;
    for (gripper::Gripper &gripper : grippers) {
        const gripper::Image image = gripper.image();
        if (image.present)
            images.push_back(image);
    }
    return images;
}

/// A line of grippers at rest cannot be judged at once.
Standstill judge(Program &program, std::vector<gripper::Gripper> &grippers,
                 const std::vector<gripper::Image> &first)
{
    StandstillJudge judge;
    Standstill standstill = judge.judge(first);
    const auto begin = judge.since().monotonic;
    std::vector<gripper::Image> images = first;
    while (standstill == Standstill::No && judge.since().monotonic == begin &&
           std::any_of(images.begin(), images.end(), isInMotion)) {
        program.pause(lookInterval);
        images = imagesOf(grippers);
        standstill = judge.judge(images);
    }
    return standstill;
}

} // namespace

Snapshot Snapshot::take(Program &program, const gripper::Endpoint &endpoint)
{
    gripper::Line line(endpoint, program.options());
    Snapshot snapshot{endpoint, line.image(), {}};
    const std::optional<int> wanted = program.settings().gripper;
    std::vector<gripper::Gripper> grippers;
    for (const int id : snapshot.ids()) {
        if (wanted && id != *wanted)
            continue;
        try {
            grippers.push_back(line.gripper(id));
        } catch (const gripper::GripperMissing &) {
            // It has just disappeared.
            continue;
        }
    }
    snapshot.grippers = imagesOf(grippers);
    if (snapshot.line.state().running)
        snapshot.standstill = judge(program, grippers, snapshot.grippers);
    return snapshot;
}

Json Snapshot::json() const
{
    Json states = Json::array();
    for (const gripper::Image &image : grippers)
        states.push_back(jsonOf(image));
    return {{"time", timeText(line.time.wall)},
            {"host", endpoint.text()},
            {"driver", driver()},
            {"link", link()},
            {"standstill", wordOf(standstill)},
            {"grippers", states}};
}

} // namespace gripperctl
