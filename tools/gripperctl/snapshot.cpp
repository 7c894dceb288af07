#include "snapshot.h"

#include "gripperview.h"
#include "text.h"

namespace gripperctl {

Snapshot Snapshot::take(Program &program, const gripper::Endpoint &endpoint)
{
    const gripper::Options options = program.options();
    gripper::Line line(endpoint, options);
    Snapshot snapshot{endpoint, line.image(), {}};
    const std::optional<int> wanted = program.settings().gripper;
    for (const int id : snapshot.ids()) {
        if (wanted && id != *wanted)
            continue;
        try {
            const gripper::Image image = line.gripper(id).image();
            if (image.present)
                snapshot.grippers.push_back(image);
        } catch (const gripper::GripperMissing &) {
            // It has just disappeared.
            continue;
        }
    }
    return snapshot;
}

Json Snapshot::json() const
{
    Json states = Json::array();
    for (const gripper::Image &image : grippers)
        states.append(jsonOf(image));
    return {{"time", timeText(line.time.wall)},
            {"host", endpoint.text()},
            {"driver", driver()},
            {"link", link()},
            {"grippers", states}};
}

} // namespace gripperctl
