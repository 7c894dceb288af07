#pragma once

#include <QtGlobal>

/// The gripper's holding registers as the simulator offers them: addresses, fields and the
/// command words. Bit 0 is the least significant bit; a 32-bit value has its low word first.
namespace sim::map {

constexpr quint16 kReset = 400;         ///< restart commands, reads as 0
constexpr quint16 kIdentityStore = 401; ///< stores the identity, reads as 0
constexpr quint16 kSettings = 430;      ///< settings block with its trailer
constexpr quint16 kSpeedLimit = 438;    ///< command word, then the speed limit at 200 N
constexpr quint16 kVersion = 500;       ///< product letters and version numbers
constexpr quint16 kIdentity = 510;      ///< serial number (4) and production year (1)
constexpr quint16 kChecksum = 515;      ///< checksum of the microcontroller, 32 bits
constexpr quint16 kCounters = 600;      ///< three counters of 32 bits
constexpr quint16 kOutputs = 1000;      ///< what the master commands
constexpr quint16 kInputs = 2000;       ///< what the gripper reports

constexpr int kSettingsCount = 7;
constexpr int kSlaveIdOffset = 4; ///< in the settings block, low byte
constexpr int kStoreOffset = 6;   ///< in the settings block
constexpr quint16 kStoreSettings = 0x0036;
constexpr int kVersionCount = 3;
constexpr int kIdentityCount = 5;
constexpr int kSerialTextCount = 2; ///< registers of characters in the serial number
constexpr int kYearOffset = 4;      ///< in the identity block
constexpr int kCounterCount = 6;
constexpr int kOutputCount = 3;
constexpr int kInputCount = 3;

constexpr quint16 kRestartFirmware = 0x5600;
constexpr quint16 kRestartIntoRomBootloader = 0x2A00;
constexpr quint16 kRestartIntoOwnBootloader = 0x3500;
constexpr quint16 kStoreIdentity = 0x4900;
constexpr quint16 kSetSpeedLimit = 130;

constexpr int kActivateBit = 8;
constexpr int kModeShift = 9;
constexpr quint16 kModeMask = 0x3;
constexpr int kGoToBit = 11;
constexpr int kAutoReleaseBit = 12;
constexpr int kAutoReleaseDirectionBit = 13;
constexpr int kStatusShift = 12;
constexpr int kObjectShift = 14;
constexpr int kFaultShift = 8;
constexpr int kHighByte = 8;
constexpr quint16 kByteMask = 0xFF;

constexpr quint8 kMinSlaveId = 1;
constexpr quint8 kMaxSlaveId = 247;
constexpr int kBaudRate = 115200; ///< the rate at which the firmware listens

} // namespace sim::map
