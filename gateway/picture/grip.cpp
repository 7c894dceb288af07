#include "grip.h"

#include "families.h"

#include <gripper/gripper.h>

namespace gateway {

namespace {

constexpr int vacuumHeld = 2;

} // namespace

bool isVacuum(const gripper::Image &image)
{
    const Family *family = familyOf(image.firmware);
    return family != nullptr && family->isVacuum;
}

bool holdsObject(const gripper::Image &image)
{
    return isVacuum(image) ? image.vacuumStatus == vacuumHeld
                           : image.object == static_cast<int>(gripper::Object::Met);
}

bool haveSameRequest(const gripper::Image &one, const gripper::Image &other)
{
    return one.requestedPosition == other.requestedPosition && one.goTo == other.goTo;
}

} // namespace gateway
