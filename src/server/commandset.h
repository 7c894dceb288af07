#pragma once

#include <QSharedPointer>

#include <string_view>

class KvPelloGripper;

/// The commands of the protocol as `Server` publishes them: the names of the variables, the replies
/// to a SET and the modes of a gripper.
struct CommandSet
{
    static constexpr std::string_view __acknowledge = "ack";
    static constexpr std::string_view __notAcknowledge = "nak";

    static constexpr std::string_view __activateRequest = "ACT";
    static constexpr std::string_view __gripperMode = "MOD";
    static constexpr std::string_view __goto = "GTO";
    static constexpr std::string_view __automaticReleaseRoutine = "ATR";
    static constexpr std::string_view __autoreleaseDirection = "ARD";
    static constexpr std::string_view __status = "STA";
    static constexpr std::string_view __vacuumStatus = "VST";
    static constexpr std::string_view __objectDetected = "OBJ";
    static constexpr std::string_view __fault = "FLT";
    static constexpr std::string_view __ledBypass = "LBP";
    static constexpr std::string_view __greenLed = "LGN";
    static constexpr std::string_view __redLed = "LRD";
    static constexpr std::string_view __blueLed = "LBL";
    static constexpr std::string_view __maxPeakSupplyCurrent = "MSC";
    static constexpr std::string_view __positionRequestEcho = "PRE";
    static constexpr std::string_view __positionRequest = "POS";
    static constexpr std::string_view __motorCurrent = "COU";
    static constexpr std::string_view __serialNumber = "SNU";
    static constexpr std::string_view __productionYear = "PYE";
    static constexpr std::string_view __numberOfCycles = "NCY";
    static constexpr std::string_view __numberOfSecondsPumpIsOn = "PON";
    static constexpr std::string_view __numberOfPumpActivations = "NPA";
    static constexpr std::string_view __firmwareVersion = "FWV";
    static constexpr std::string_view __driverVersion = "VER";
    static constexpr std::string_view __speedRequest = "SPE";
    static constexpr std::string_view __forceRequest = "FOR";
    static constexpr std::string_view __printableState = "DRI";
    static constexpr std::string_view __socketSlaveId = "SID";
    static constexpr std::string_view __upgradeFirmware = "UPG";
    static constexpr std::string_view __scanBlockRequest = "SCN_BLOCK";
    static constexpr std::string_view __scanRequest = "SCN";
    static constexpr std::string_view __updateGripperSlaveId = "NID";
    static constexpr std::string_view __muteSerialPort = "MUTE";
    static constexpr std::string_view __commandLoopThrottleSpeed = "THROTTLE";
    static constexpr std::string_view __bootloaderMode = "BLD";

    /// Sets the mode of `gripper`, which must not be null: 0 is manual, 1 is automatic. Returns the
    /// reply. Any other mode changes nothing and returns "nak".
    static std::string_view
    handleSetGripperModeRequest(const QSharedPointer<KvPelloGripper> &gripper, quint8 mode);
};
