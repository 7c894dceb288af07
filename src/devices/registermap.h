#pragma once

#include <QtGlobal>

/// Addresses and bit positions of the gripper's holding registers.
/// A 32-bit value takes two consecutive registers, low word first.
namespace RegisterMap {

// Restarts
constexpr quint16 resetAddress = 400;
constexpr quint16 restartIntoOwnBootloader = 0x3500;
constexpr quint16 restartIntoRomBootloader = 0x2A00;
constexpr quint16 restartFirmware = 0x5600;

// Communication settings
constexpr quint16 settingsAddress = 430;
constexpr quint16 settingsCount = 5;
constexpr int settingsSlaveIdIndex = 4; // the low byte; the high byte is another setting
constexpr quint16 settingsTrailer[] = {0x0000, 0x0036}; // the last words of every write

// Identity
constexpr quint16 commandAddress = 401;
constexpr quint16 firmwareVersionAddress = 500;
constexpr quint16 firmwareVersionCount = 3;
constexpr quint16 serialNumberAddress = 510;
constexpr quint16 serialNumberCount = 4;
constexpr quint16 productionYearAddress = 514;
constexpr quint16 storeIdentityCommand = 0x4900;

// Output block, written as a whole
constexpr quint16 outputAddress = 1000;
constexpr int ledBypassShift = 4;
constexpr int ledRedShift = 5;
constexpr int ledBlueShift = 6;
constexpr int ledGreenShift = 7;
constexpr int activateShift = 8;
constexpr int gripperModeShift = 9;
constexpr int goToShift = 11;
constexpr int autoReleaseShift = 12;
constexpr int autoReleaseDirectionShift = 13;
constexpr int maxPeakSupplyCurrentShift = 8;
constexpr int speedShift = 8;

// Input block
constexpr quint16 inputAddress = 2000;
constexpr quint16 inputCount = 3;
constexpr int vacuumStatusShift = 0;
constexpr int statusShift = 12;
constexpr int objectFlagShift = 14;
constexpr int faultFlagShift = 8;
constexpr int positionShift = 8;
constexpr quint16 oneBit = 0x1;
constexpr quint16 twoBits = 0x3;
constexpr quint16 fourBits = 0xF;
constexpr quint16 eightBits = 0xFF;

// Maintenance
constexpr quint16 speedLimitCommandAddress = 438;
constexpr quint16 speedLimitAddress = 439;
constexpr quint16 speedLimitCommand = 130;
constexpr quint16 microUniqueCrcAddress = 515;
constexpr quint16 cyclesAddress = 600;
constexpr quint16 pumpSecondsAddress = 602;     // also the odometer
constexpr quint16 pumpActivationsAddress = 604; // the low word is the activation count range
constexpr quint16 counterCount = 2;

} // namespace RegisterMap
