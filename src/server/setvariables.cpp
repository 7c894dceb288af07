#include "setvariables.h"

#include "commandset.h"
#include "gripperlist.h"

#include <algorithm>
#include <iterator>

namespace {

using Reply = std::optional<std::string_view>;
using G = KvPelloGripper;

constexpr bool needsGripper = true;
constexpr bool needsNothing = false;
constexpr bool atOnce = false;
constexpr bool mayWait = true;

std::string_view acknowledgeIf(bool succeeded)
{
    return succeeded ? CommandSet::__acknowledge : CommandSet::__notAcknowledge;
}

template <auto set, auto clear>
Reply flag(const SetTarget &target)
{
    if (target.value != 0)
        (target.gripper.data()->*set)();
    else
        (target.gripper.data()->*clear)();
    return std::nullopt;
}

template <auto set>
Reply number(const SetTarget &target)
{
    (target.gripper.data()->*set)(target.value);
    return std::nullopt;
}

Reply activate(const SetTarget &target)
{
    target.gripper->clearAutoReleaseRequest();
    return flag<&G::setActivateRequest, &G::clearActivateRequest>(target);
}

Reply setMode(const SetTarget &target)
{
    return CommandSet::handleSetGripperModeRequest(target.gripper, target.value);
}

Reply scanNow(const SetTarget &target)
{
    target.gripperList.requestScanBlock();
    return std::nullopt;
}

Reply scanLater(const SetTarget &target)
{
    target.gripperList.requestScan();
    return std::nullopt;
}

/// After the move, the client still addresses the old id. The reply does not depend on the success:
/// the client selects the new id to see whether a gripper answers there.
Reply moveGripper(const SetTarget &target)
{
    target.gripperList.updateGripperSlaveId(static_cast<quint8>(target.selectedSlaveId),
                                            target.value);
    target.gripperList.requestScanBlock();
    return std::nullopt;
}

/// Selects the id even if no gripper has been found at it yet.
Reply selectGripper(const SetTarget &target)
{
    const bool isDiscovered = target.gripperList.getDiscoveredSlaveIds().contains(target.value);
    target.selectedSlaveId = target.value;
    return isDiscovered ? Reply() : CommandSet::__notAcknowledge;
}

Reply mute(const SetTarget &target)
{
    target.gripperList.setMuted(target.value != 0);
    return std::nullopt;
}

Reply throttle(const SetTarget &target)
{
    target.gripperList.setThrottled(target.value != 0);
    return std::nullopt;
}

Reply upgrade(const SetTarget &target)
{
    return acknowledgeIf(target.gripperList.upgradeFirmware(target.gripper));
}

Reply enterBootloader(const SetTarget &target)
{
    return acknowledgeIf(target.gripperList.jumpToBootloader(target.gripper));
}

constexpr std::string_view byte = "0 to 255";
constexpr std::string_view onOff = "0, 1";
constexpr std::string_view any = "any";
constexpr std::string_view slaveId = "1 to 9";
constexpr std::string_view never;

constexpr SetVariable variables[] = {
    {CommandSet::__activateRequest, needsGripper, atOnce, onOff,
     "Activates or deactivates the gripper, and ends an automatic release.", never, activate},
    {CommandSet::__gripperMode, needsGripper, atOnce, onOff,
     "Sets the mode: manual (0) or automatic (1).", "the value is neither 0 nor 1", setMode},
    {CommandSet::__goto, needsGripper, atOnce, onOff,
     "Switches the movement to the requested position on or off.", never,
     flag<&G::setGoToRequest, &G::clearGoToRequest>},
    {CommandSet::__automaticReleaseRoutine, needsGripper, atOnce, onOff,
     "Starts the automatic release.", never,
     flag<&G::setAutoReleaseRequest, &G::clearAutoReleaseRequest>},
    {CommandSet::__autoreleaseDirection, needsGripper, atOnce, onOff,
     "Sets the direction of the automatic release: opening (0) or closing (1).", never,
     flag<&G::setAutoReleaseDirectionRequest, &G::clearAutoReleaseDirectionRequest>},
    {CommandSet::__ledBypass, needsGripper, atOnce, onOff,
     "Lets the LEDs show the requested colours instead of the state.", never,
     flag<&G::setLedBypass, &G::clearLedBypass>},
    {CommandSet::__greenLed, needsGripper, atOnce, onOff, "Sets the green LED.", never,
     flag<&G::setLedGreen, &G::clearLedGreen>},
    {CommandSet::__redLed, needsGripper, atOnce, onOff, "Sets the red LED.", never,
     flag<&G::setLedRed, &G::clearLedRed>},
    {CommandSet::__blueLed, needsGripper, atOnce, onOff, "Sets the blue LED.", never,
     flag<&G::setLedBlue, &G::clearLedBlue>},
    {CommandSet::__maxPeakSupplyCurrent, needsGripper, atOnce, byte,
     "Sets the peak supply current.", never, number<&G::setMaxPeakSupplyCurrent>},
    {CommandSet::__positionRequest, needsGripper, atOnce, byte, "Requests a position.", never,
     number<&G::setPositionRequest>},
    {CommandSet::__speedRequest, needsGripper, atOnce, byte, "Sets the speed.", never,
     number<&G::setSpeedRequest>},
    {CommandSet::__forceRequest, needsGripper, atOnce, byte, "Sets the force.", never,
     number<&G::setForceRequest>},
    {CommandSet::__scanBlockRequest, needsNothing, mayWait, any,
     "Scans; the reply comes after the scan.", never, scanNow},
    {CommandSet::__scanRequest, needsNothing, atOnce, any, "Requests a scan.", never, scanLater},
    {CommandSet::__updateGripperSlaveId, needsNothing, mayWait, slaveId,
     "Moves the selected gripper to another slave id, then scans.", never, moveGripper},
    {CommandSet::__socketSlaveId, needsNothing, atOnce, slaveId,
     "Selects the gripper of this connection.", "no gripper was found at that id", selectGripper},
    {CommandSet::__muteSerialPort, needsNothing, atOnce, onOff,
     "Stops polling (1) or lets it continue (0), for all clients.", never, mute},
    {CommandSet::__commandLoopThrottleSpeed, needsNothing, atOnce, onOff,
     "Polls every 50 ms (1) or as fast as possible (0), for all clients.", never, throttle},
    {CommandSet::__upgradeFirmware, needsGripper, mayWait, any,
     "Flashes the firmware of the gripper's family.",
     "an upgrade is running, or the gripper does not reach its bootloader", upgrade},
    {CommandSet::__bootloaderMode, needsGripper, mayWait, any,
     "Sends the gripper into its bootloader.",
     "an upgrade is running, or the gripper does not reach its bootloader", enterBootloader},
};

} // namespace

TableRows<SetVariable> setVariables()
{
    return TableRows<SetVariable>(variables);
}

const SetVariable *findSetVariable(std::string_view name)
{
    const auto *row = std::find_if(std::begin(variables), std::end(variables),
                                   [name](const SetVariable &v) { return v.name == name; });
    return row == std::end(variables) ? nullptr : row;
}
