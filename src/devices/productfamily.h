#pragma once

#include "bootloader.h"

#include <QLatin1String>
#include <QString>

#include <array>

/// How a gripper holds its object.
enum class Grip {
    Fingers, ///< GET POS is the position of the fingers.
    Vacuum,  ///< GET POS is the vacuum level.
};

/// The facts that differ between the families. One class drives all families.
struct ProductFamily
{
    QLatin1String code;                  ///< Firmware versions start with these two letters.
    const char *firmwareImage = nullptr; ///< A path relative to the working directory.
    const Bootloader *bootloader = nullptr;
    Grip grip = Grip::Fingers;
};

inline constexpr ProductFamily pelloFamily{QLatin1String("TA", 2), "firmware/TA3-1.6.14.bin",
                                           &romBootloader, Grip::Fingers};
inline constexpr ProductFamily varnoFamily{QLatin1String("TB", 2), "firmware/TB1-1.4.3.bin",
                                           &romBootloader, Grip::Fingers};
inline constexpr ProductFamily zentraFamily{QLatin1String("TE", 2), "firmware/TE1-2.0.2.bin",
                                            &ownBootloader, Grip::Vacuum};
inline constexpr ProductFamily sorbixFamily{QLatin1String("TF", 2), "firmware/TF1-2.0.2.bin",
                                            &ownBootloader, Grip::Vacuum};

inline constexpr std::array<const ProductFamily *, 4> productFamilies{&pelloFamily, &varnoFamily,
                                                                      &zentraFamily, &sorbixFamily};

/// Whether `firmwareVersion` starts with the code of a family.
bool startsWithProductCode(const QString &firmwareVersion);

/// The family whose code has the same second letter as `firmwareVersion`, or null. The other
/// letters are not compared.
const ProductFamily *productFamilyOf(const QString &firmwareVersion);
