#pragma once

#include <picture.h>

#include <chrono>

/// A clock that the test moves, and readings of one gripper.
namespace views {

inline gripper::ReadingTime at(std::chrono::milliseconds time)
{
    return {gateway::Clock::time_point(std::chrono::hours(1)) + time,
            std::chrono::system_clock::time_point(std::chrono::hours(400000)) + time};
}

/// An active gripper at its requested position.
inline gripper::Image image(int id = 9)
{
    gripper::Image image;
    image.id = id;
    image.present = true;
    image.stale = false;
    image.status = 3;
    image.active = true;
    image.goTo = true;
    image.object = 3;
    image.position = 10;
    image.requestedPosition = 10;
    image.current = 0;
    image.fault = 0;
    image.vacuumStatus = 0;
    image.firmware = id == 2 ? "TE1-2.0.2" : "TA3-1.6.14";
    image.serialNumber = "SIM-" + std::to_string(id);
    return image;
}

inline gateway::Reading reading(std::chrono::milliseconds time,
                                const std::vector<gripper::Image> &images)
{
    gateway::Reading reading;
    reading.time = at(time);
    reading.line.emplace();
    reading.line->link = "RUNNING";
    reading.line->driver = "MZV-2.0.0";
    reading.line->ids.emplace();
    for (gripper::Image each : images) {
        each.time = at(time);
        reading.line->ids->push_back(each.id);
        reading.images.push_back(each);
    }
    return reading;
}

inline gateway::Reading lineReading(std::chrono::milliseconds time, const char *link)
{
    gateway::Reading reading = views::reading(time, {});
    reading.line->link = link;
    return reading;
}

} // namespace views
