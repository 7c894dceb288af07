// The headers in another order.
#include <gripper/watch.h>

#include <gripper/variables.h>

#include <gripper/protocol.h>

#include <gripper/line.h>

#include <gripper/image.h>

#include <gripper/gripper.h>

#include <gripper/errors.h>

#include <gripper/connection.h>

std::size_t variablesSeenElsewhere();

std::size_t variablesSeenElsewhere()
{
    return gripper::getVariables.size();
}
