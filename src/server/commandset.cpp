#include "commandset.h"

#include "kvpellogripper.h"

std::string_view
CommandSet::handleSetGripperModeRequest(const QSharedPointer<KvPelloGripper> &gripper, quint8 mode)
{
    switch (mode) {
    case 0:
        gripper->setGripperModeManual();
        return __acknowledge;
    case 1:
        gripper->setGripperModeAutomatic();
        return __acknowledge;
    default:
        return __notAcknowledge;
    }
}
