#include "setvariables.h"

#include "server.h"

#include <algorithm>
#include <array>

namespace {

using Reply = std::optional<std::string_view>;
using G = KvPelloGripper;

constexpr bool needsGripper = true;
constexpr bool needsNothing = false;
constexpr bool atOnce = false;
constexpr bool mayWait = true;

std::string_view acknowledgeIf(bool succeeded)
{
    return succeeded ? Server::__acknowledge : Server::__notAcknowledge;
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
    return Server::handleSetGripperModeRequest(target.gripper, target.value);
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

/// The client goes on addressing the old id, and the reply tells nothing: it selects the new one
/// and sees who answers.
Reply moveGripper(const SetTarget &target)
{
    target.gripperList.updateGripperSlaveId(static_cast<quint8>(target.selectedSlaveId),
                                            target.value);
    target.gripperList.requestScanBlock();
    return std::nullopt;
}

/// Selects the id also when no gripper has been found at it yet.
Reply selectGripper(const SetTarget &target)
{
    const bool isDiscovered = target.gripperList.getDiscoveredSlaveIds().contains(target.value);
    target.selectedSlaveId = target.value;
    return isDiscovered ? Reply() : Server::__notAcknowledge;
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

constexpr std::array<SetVariable, 21> variables{{
    {Server::__activateRequest, needsGripper, atOnce, activate},
    {Server::__gripperMode, needsGripper, atOnce, setMode},
    {Server::__goto, needsGripper, atOnce, flag<&G::setGoToRequest, &G::clearGoToRequest>},
    {Server::__automaticReleaseRoutine, needsGripper, atOnce,
     flag<&G::setAutoReleaseRequest, &G::clearAutoReleaseRequest>},
    {Server::__autoreleaseDirection, needsGripper, atOnce,
     flag<&G::setAutoReleaseDirectionRequest, &G::clearAutoReleaseDirectionRequest>},
    {Server::__ledBypass, needsGripper, atOnce, flag<&G::setLedBypass, &G::clearLedBypass>},
    {Server::__greenLed, needsGripper, atOnce, flag<&G::setLedGreen, &G::clearLedGreen>},
    {Server::__redLed, needsGripper, atOnce, flag<&G::setLedRed, &G::clearLedRed>},
    {Server::__blueLed, needsGripper, atOnce, flag<&G::setLedBlue, &G::clearLedBlue>},
    {Server::__maxPeakSupplyCurrent, needsGripper, atOnce, number<&G::setMaxPeakSupplyCurrent>},
    {Server::__positionRequest, needsGripper, atOnce, number<&G::setPositionRequest>},
    {Server::__speedRequest, needsGripper, atOnce, number<&G::setSpeedRequest>},
    {Server::__forceRequest, needsGripper, atOnce, number<&G::setForceRequest>},
    {Server::__scanBlockRequest, needsNothing, mayWait, scanNow},
    {Server::__scanRequest, needsNothing, atOnce, scanLater},
    {Server::__updateGripperSlaveId, needsNothing, mayWait, moveGripper},
    {Server::__socketSlaveId, needsNothing, atOnce, selectGripper},
    {Server::__muteSerialPort, needsNothing, atOnce, mute},
    {Server::__commandLoopThrottleSpeed, needsNothing, atOnce, throttle},
    {Server::__upgradeFirmware, needsGripper, mayWait, upgrade},
    {Server::__bootloaderMode, needsGripper, mayWait, enterBootloader},
}};

} // namespace

const SetVariable *findSetVariable(std::string_view name)
{
    const auto *row = std::find_if(variables.begin(), variables.end(),
                                   [name](const SetVariable &v) { return v.name == name; });
    return row == variables.end() ? nullptr : row;
}
