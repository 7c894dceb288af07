#include "getvariables.h"

#include "commandset.h"
#include "gripperlist.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <iterator>

namespace {

constexpr std::string_view driverVersion = "MZV-2.0.0";

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

/// Appends the result of `getter` in decimal, with at least `minimumDigits` digits.
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

constexpr std::string_view flag = "0, 1";
constexpr std::string_view twoBits = "0 to 3";
constexpr std::string_view byte = "0 to 255";
constexpr std::string_view counter = "0 to 4294967295";
constexpr std::string_view text = "text";

constexpr GetVariable variables[] = {
    {CommandSet::__activateRequest, ValueSource::Gripper, flag,
     "The gripper is active: its activation is complete.", gripperNumber<&G::getActivateEcho>},
    {CommandSet::__gripperMode, ValueSource::Gripper, twoBits, "The mode of the gripper.",
     gripperNumber<&G::getGripperModeEcho>},
    {CommandSet::__goto, ValueSource::Gripper, flag,
     "Go-to is on: the gripper goes to the requested position.", gripperNumber<&G::getGoToEcho>},
    {CommandSet::__status, ValueSource::Gripper, twoBits, "The status of the gripper; 3 is active.",
     gripperNumber<&G::getStatus>},
    {CommandSet::__vacuumStatus, ValueSource::Gripper, twoBits, "The vacuum status.",
     gripperNumber<&G::getVacuumStatus>},
    {CommandSet::__objectDetected, ValueSource::Gripper, twoBits,
     "The object detection: moving, stopped by an object, or at the position.",
     gripperNumber<&G::getObjectFlag>},
    {CommandSet::__fault, ValueSource::Gripper, "00 to 15",
     "The fault code, in two digits; 00 is no fault.", gripperNumber<&G::getFaultFlag, 2>},
    {CommandSet::__ledBypass, ValueSource::Request, flag,
     "The LEDs show the requested colours instead of the state.", gripperNumber<&G::getLedBypass>},
    {CommandSet::__greenLed, ValueSource::Request, flag, "The green LED.",
     gripperNumber<&G::getLedGreen>},
    {CommandSet::__redLed, ValueSource::Request, flag, "The red LED.",
     gripperNumber<&G::getLedRed>},
    {CommandSet::__blueLed, ValueSource::Request, flag, "The blue LED.",
     gripperNumber<&G::getLedBlue>},
    {CommandSet::__maxPeakSupplyCurrent, ValueSource::Request, byte, "The peak supply current.",
     gripperNumber<&G::getMaxPeakSupplyCurrent>},
    {CommandSet::__positionRequestEcho, ValueSource::Gripper, "000 to 255",
     "The position request that the gripper has, in three digits.",
     gripperNumber<&G::getPositionRequestEcho, 3>},
    {CommandSet::__positionRequest, ValueSource::Gripper, byte,
     "The measured position, not the requested one.", gripperNumber<&G::getPosition>},
    {CommandSet::__motorCurrent, ValueSource::Gripper, byte, "The motor current.",
     gripperNumber<&G::getMotorCurrent>},
    {"DST", ValueSource::Constant, "0", "No meaning; some clients read it.", zero},
    {CommandSet::__serialNumber, ValueSource::Identity, text, "The serial number.",
     gripperText<&G::getSerialNumber>},
    {CommandSet::__productionYear, ValueSource::Identity, "1 to 65535", "The production year.",
     gripperNumber<&G::getProductionYear>},
    {CommandSet::__numberOfCycles, ValueSource::Gripper, counter, "The number of cycles.",
     gripperNumber<&G::getNumberOfCycles>},
    {CommandSet::__numberOfSecondsPumpIsOn, ValueSource::Gripper, counter,
     "The seconds that the pump has run.", gripperNumber<&G::getNumberOfSecondsPumpIsOn>},
    {CommandSet::__numberOfPumpActivations, ValueSource::Gripper, counter,
     "The number of starts of the pump.", gripperNumber<&G::getNumberOfPumpActivations>},
    {CommandSet::__firmwareVersion, ValueSource::Identity, text, "The firmware version.",
     gripperText<&G::getFirmwareVersion>},
    {"PCO", ValueSource::Constant, "0", "No meaning; some clients read it.", zero},
    {CommandSet::__driverVersion, ValueSource::Constant, driverVersion,
     "The version of the protocol's driver.",
     [](const GetSources &, std::string &reply) { reply.append(driverVersion); }},
    {CommandSet::__speedRequest, ValueSource::Request, byte, "The requested speed.",
     gripperNumber<&G::getSpeedRequest>},
    {CommandSet::__forceRequest, ValueSource::Request, byte, "The requested force.",
     gripperNumber<&G::getForceRequest>},
    {CommandSet::__printableState, ValueSource::Daemon, text, "The state of the link.",
     [](const GetSources &from, std::string &reply) {
         reply.append(from.gripperList.getPrintableState().toStdString());
     }},
    {CommandSet::__socketSlaveId, ValueSource::Daemon, "a list such as [2, 9]",
     "The slave ids of the grippers found, not the selection of the client.",
     [](const GetSources &from, std::string &reply) {
         appendIds(reply, from.gripperList.getDiscoveredSlaveIds());
     }},
    {CommandSet::__upgradeFirmware, ValueSource::Daemon, flag, "A firmware upgrade is running.",
     [](const GetSources &from, std::string &reply) {
         appendNumber(reply, from.gripperList.getUpgradeStatus());
     }},
};

constexpr std::size_t nameLength = 3;

constexpr bool allNamesHaveNameLength()
{
    for (const GetVariable &variable : variables) {
        if (variable.name.size() != nameLength)
            return false;
    }
    return true;
}
static_assert(allNamesHaveNameLength(), "a GET takes the first three characters of a name");

/// Packs a name into a number, which compares in one step.
constexpr std::uint32_t keyOf(std::string_view name)
{
    std::uint32_t key = 0;
    for (const char c : name)
        key = key << 8 | static_cast<unsigned char>(c);
    return key;
}

constexpr auto keys = [] {
    std::array<std::uint32_t, std::size(variables)> keysOfRows{};
    for (std::size_t row = 0; row < keysOfRows.size(); ++row)
        keysOfRows[row] = keyOf(variables[row].name);
    return keysOfRows;
}();

} // namespace

TableRows<GetVariable> getVariables()
{
    return TableRows<GetVariable>(variables);
}

const GetVariable *findGetVariable(std::string_view name)
{
    if (name.size() != nameLength)
        return nullptr;
    const auto *key = std::find(keys.begin(), keys.end(), keyOf(name));
    return key == keys.end() ? nullptr : &variables[key - keys.begin()];
}
