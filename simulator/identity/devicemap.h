#pragma once

#include <QtGlobal>

/// The holding registers of a gripper: addresses, fields and command words. Bit 0 is the least
/// significant bit. A 32-bit value has its low word first. Counts are numbers of registers.
namespace sim::map {

constexpr quint16 resetAddress = 400;         ///< takes restart commands, reads 0
constexpr quint16 identityStoreAddress = 401; ///< takes the store command, reads 0
constexpr quint16 settingsAddress = 430;      ///< the settings and their store command
constexpr quint16 speedLimitAddress = 438;    ///< a command, then the speed limit at 200 N
constexpr quint16 versionAddress = 500;       ///< product letters and version numbers
constexpr quint16 identityAddress = 510;      ///< serial number (4) and production year (1)
constexpr quint16 checksumAddress = 515;      ///< checksum of the microcontroller, 32 bits
constexpr quint16 countersAddress = 600;      ///< three counters of 32 bits
constexpr quint16 outputsAddress = 1000;      ///< what the master commands
constexpr quint16 inputsAddress = 2000;       ///< what the gripper reports

constexpr int settingsCount = 7;
constexpr int slaveIdOffset = 4;      ///< in the settings block, low byte
constexpr int storeCommandOffset = 6; ///< in the settings block
constexpr quint16 storeSettingsCommand = 0x0036;
constexpr int versionCount = 3;
constexpr int identityCount = 5;
constexpr int serialTextCount = 2; ///< characters of the serial number, two each
constexpr int counterCount = 6;
constexpr int outputCount = 3;
constexpr int inputCount = 3;

constexpr quint16 restartCommand = 0x5600;
constexpr quint16 romBootloaderCommand = 0x2A00;
constexpr quint16 ownBootloaderCommand = 0x3500;
constexpr quint16 storeIdentityCommand = 0x4900;
constexpr quint16 speedLimitCommand = 130;

constexpr int activateBit = 8;
constexpr int modeShift = 9;
constexpr quint16 modeMask = 0x3;
constexpr int goToBit = 11;
constexpr int autoReleaseBit = 12;
constexpr int autoReleaseDirectionBit = 13;
constexpr int statusShift = 12;
constexpr int objectShift = 14;
constexpr int faultShift = 8;
constexpr int highByteShift = 8;
constexpr quint16 byteMask = 0xFF;

constexpr quint8 minSlaveId = 1;
constexpr quint8 maxSlaveId = 247;
constexpr int firmwareBaudRate = 115200; ///< the rate at which the firmware listens

} // namespace sim::map
