#include "bootloaderkind.h"

#include "bootloadercodes.h"
#include "flashmemory.h"
#include "gripperidentity.h"

namespace sim {

namespace {
constexpr quint32 kOwnFirmwareStart = 0x08080000;

constexpr BootloaderKind kRom{"rom", 19200, FlashMemory::__start, 0x31, boot::kExtendedErase};
constexpr BootloaderKind kOwn{"own", 115200, kOwnFirmwareStart, 0x22, boot::kErase};
} // namespace

const BootloaderKind &bootloaderOf(const GripperIdentity &identity)
{
    return identity.isVacuum() ? kOwn : kRom;
}

} // namespace sim
