#include "bootloaderkind.h"

#include "bootloadercodes.h"
#include "flashmemory.h"
#include "gripperidentity.h"

namespace sim {

namespace {
constexpr quint32 ownFirmwareStart = 0x08080000;

constexpr BootloaderKind romBootloader{19200, FlashMemory::startAddress, 0x31,
                                       boot::extendedEraseCommand};
constexpr BootloaderKind ownBootloader{115200, ownFirmwareStart, 0x22, boot::eraseCommand};
} // namespace

const BootloaderKind &bootloaderOf(const GripperIdentity &identity)
{
    return identity.isVacuum() ? ownBootloader : romBootloader;
}

} // namespace sim
