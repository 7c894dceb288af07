// Includes every header of libgripper, as headers_again.cpp does: each definition must exist once.
#include <gripper/connection.h>
#include <gripper/errors.h>
#include <gripper/gripper.h>
#include <gripper/image.h>
#include <gripper/line.h>
#include <gripper/protocol.h>
#include <gripper/variables.h>
#include <gripper/watch.h>

#include <cstdio>

std::size_t variablesSeenElsewhere();

/// Prints what an outside project can check.
int main()
{
    const bool isSame = variablesSeenElsewhere() == gripper::getVariables.size();
    const auto address = gripper::Endpoint::fromText("::1").text();
    std::printf("%s\n", address.c_str());
    return isSame ? 0 : 1;
}
