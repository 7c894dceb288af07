// Grips a part with gripper 9, watches it for five seconds, and lets it go. It survives a restart
// of the daemon and reacts to faults.
//
//     grip [HOST]
//
//     g++ -std=c++17 -o grip grip.cpp $(pkg-config --cflags --libs gripper)
#include <gripper/line.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

namespace {

constexpr int id = 9;
constexpr int speed = 255;
constexpr int force = 100;

/// Fingers hold a part when it stops them. A vacuum gripper holds one at the requested level. An
/// image without fresh values is no proof.
bool isHeld(const gripper::Image &image)
{
    if (image.stale || image.goTo != true)
        return false;
    const std::string family = image.firmware.value_or("").substr(0, 2);
    const bool hasVacuum = family == "TE" || family == "TF";
    return hasVacuum ? image.vacuumStatus == 2 : image.object == int(gripper::Object::Met);
}

/// Returns whether the part is still held after five seconds.
bool watchPart(const gripper::Gripper &gripper)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    gripper::Watch watch = gripper.watch(10);
    bool wasHeld = true;
    while (std::chrono::steady_clock::now() < end) {
        const gripper::WatchItem item = watch.next();
        if (const auto *outage = std::get_if<gripper::Outage>(&item)) {
            // The gripper continues to hold while the daemon restarts.
            std::printf("no values: %s\n", outage->text.c_str());
            continue;
        }
        const auto &image = std::get<gripper::Image>(item);
        if (image.fault.value_or(0) != 0)
            throw gripper::Fault("fault while holding", *image.fault);
        if (wasHeld && !isHeld(image))
            std::printf("lost the part at position %d\n", image.position.value_or(-1));
        wasHeld = isHeld(image);
    }
    return wasHeld;
}

bool grip(gripper::Line &line)
{
    line.waitUntilRunning({id});
    gripper::Gripper gripper = line.gripper(id);
    // An active gripper without a fault stays as it is, so a part in it is not dropped.
    gripper.activate();
    if (!isHeld(gripper.image()))
        gripper.open(speed, force);
    // This also restores the force of a held part, which a scan sets to 0.
    gripper.close(speed, force);
    if (!isHeld(gripper.image())) {
        std::printf("there is no part\n");
        gripper.open(speed, force);
        return false;
    }
    const bool isStillHeld = watchPart(gripper);
    gripper.open(speed, force);
    return isStillHeld;
}

} // namespace

int main(int argumentCount, char **arguments)
{
    constexpr int maxAttempts = 3;
    try {
        gripper::Line line(argumentCount > 1 ? arguments[1] : "127.0.0.1");
        for (int attempt = 1; attempt <= maxAttempts; ++attempt) {
            try {
                return grip(line) ? 0 : 1;
            } catch (const gripper::ConnectionLost &error) {
                // The library never repeats a SET. The next attempt looks at the gripper before it
                // commands.
                std::printf("%s\n", error.what());
                if (!error.unknown().empty())
                    std::printf("the gripper may or may not carry out: %s\n",
                                error.unknown().c_str());
            } catch (const gripper::Fault &error) {
                // The next attempt activates the gripper, which clears the fault and opens the
                // fingers.
                std::printf("fault %d: %s\n", error.code(), error.what());
            }
        }
    } catch (const std::exception &error) {
        std::fprintf(stderr, "grip: %s\n", error.what());
    }
    return 2;
}
