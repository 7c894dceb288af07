#include "getvariables.h"

#include "server.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace {

constexpr std::string_view driverVersion = "MZV-2.0.0";

constexpr bool needsGripper = true;
constexpr bool needsNothing = false;
constexpr bool fromImage = false;
constexpr bool mayAskDevice = true;

void appendNumber(std::string &reply, qint64 number, int minimumDigits = 1)
{
    std::array<char, 24> digits{};
    const auto end = std::to_chars(digits.begin(), digits.end(), number).ptr;
    const auto count = static_cast<int>(end - digits.begin());
    reply.append(static_cast<std::size_t>(std::max(0, minimumDigits - count)), '0');
    reply.append(digits.data(), end);
}

void appendIds(std::string &reply, const QVector<quint8> &ids)
{
    std::string_view separator;
    reply.push_back('[');
    for (const quint8 id : ids) {
        reply.append(separator);
        appendNumber(reply, id);
        separator = ", ";
    }
    reply.push_back(']');
}

/// The value of a getter of the selected gripper, in decimal with at least that many digits.
template <auto getter, int minimumDigits = 1>
void gripperNumber(const GetSources &from, std::string &reply)
{
    appendNumber(reply, (from.gripper->*getter)(), minimumDigits);
}

template <auto getter>
void gripperText(const GetSources &from, std::string &reply)
{
    reply.append((from.gripper->*getter)().toStdString());
}

void zero(const GetSources & /*from*/, std::string &reply)
{
    reply.push_back('0');
}

using G = KvPelloGripper;

constexpr std::array<GetVariable, 29> variables{{
    {Server::__activateRequest, needsGripper, fromImage, gripperNumber<&G::getActivateEcho>},
    {Server::__gripperMode, needsGripper, fromImage, gripperNumber<&G::getGripperModeEcho>},
    {Server::__goto, needsGripper, fromImage, gripperNumber<&G::getGoToEcho>},
    {Server::__status, needsGripper, fromImage, gripperNumber<&G::getStatus>},
    {Server::__vacuumStatus, needsGripper, fromImage, gripperNumber<&G::getVacuumStatus>},
    {Server::__objectDetected, needsGripper, fromImage, gripperNumber<&G::getObjectFlag>},
    {Server::__fault, needsGripper, fromImage, gripperNumber<&G::getFaultFlag, 2>},
    {Server::__ledBypass, needsGripper, fromImage, gripperNumber<&G::getLedBypass>},
    {Server::__greenLed, needsGripper, fromImage, gripperNumber<&G::getLedGreen>},
    {Server::__redLed, needsGripper, fromImage, gripperNumber<&G::getLedRed>},
    {Server::__blueLed, needsGripper, fromImage, gripperNumber<&G::getLedBlue>},
    {Server::__maxPeakSupplyCurrent, needsGripper, fromImage,
     gripperNumber<&G::getMaxPeakSupplyCurrent>},
    {Server::__positionRequestEcho, needsGripper, fromImage,
     gripperNumber<&G::getPositionRequestEcho, 3>},
    // The measured position, not the one requested.
    {Server::__positionRequest, needsGripper, fromImage, gripperNumber<&G::getPosition>},
    {Server::__motorCurrent, needsGripper, fromImage, gripperNumber<&G::getMotorCurrent>},
    {"DST", needsNothing, fromImage, zero},
    {Server::__serialNumber, needsGripper, mayAskDevice, gripperText<&G::getSerialNumber>},
    {Server::__productionYear, needsGripper, mayAskDevice, gripperNumber<&G::getProductionYear>},
    {Server::__numberOfCycles, needsGripper, fromImage, gripperNumber<&G::getNumberOfCycles>},
    {Server::__numberOfSecondsPumpIsOn, needsGripper, fromImage,
     gripperNumber<&G::getNumberOfSecondsPumpIsOn>},
    {Server::__numberOfPumpActivations, needsGripper, fromImage,
     gripperNumber<&G::getNumberOfPumpActivations>},
    {Server::__firmwareVersion, needsGripper, mayAskDevice, gripperText<&G::getFirmwareVersion>},
    {"PCO", needsNothing, fromImage, zero},
    {Server::__driverVersion, needsNothing, fromImage,
     [](const GetSources &, std::string &reply) { reply.append(driverVersion); }},
    {Server::__speedRequest, needsGripper, fromImage, gripperNumber<&G::getSpeedRequest>},
    {Server::__forceRequest, needsGripper, fromImage, gripperNumber<&G::getForceRequest>},
    {Server::__printableState, needsNothing, fromImage,
     [](const GetSources &from, std::string &reply) {
         reply.append(from.gripperList.getPrintableState().toStdString());
     }},
    // The ids found on the bus, not the client's own selection.
    {Server::__socketSlaveId, needsNothing, fromImage,
     [](const GetSources &from, std::string &reply) {
         appendIds(reply, from.gripperList.getDiscoveredSlaveIds());
     }},
    {Server::__upgradeFirmware, needsNothing, fromImage,
     [](const GetSources &from, std::string &reply) {
         appendNumber(reply, from.gripperList.getUpgradeStatus());
     }},
}};

constexpr std::size_t nameLength = 3;

/// All names are equally long: as a number one is compared in a single step.
constexpr std::uint32_t keyOf(std::string_view name)
{
    std::uint32_t key = 0;
    for (const char c : name)
        key = key << 8 | static_cast<unsigned char>(c);
    return key;
}

constexpr auto keys = [] {
    std::array<std::uint32_t, variables.size()> keysOfRows{};
    for (std::size_t row = 0; row < variables.size(); ++row)
        keysOfRows[row] = variables[row].name.size() == nameLength ? keyOf(variables[row].name) : 0;
    return keysOfRows;
}();

} // namespace

const GetVariable *findGetVariable(std::string_view name)
{
    if (name.size() != nameLength)
        return nullptr;
    const auto *key = std::find(keys.begin(), keys.end(), keyOf(name));
    return key == keys.end() ? nullptr : &variables[static_cast<std::size_t>(key - keys.begin())];
}
