#pragma once

#include <sys/types.h>

namespace flasher {

/// Makes the kernel kill this process when its parent ends, however that happens. Asks for it
/// late: false when the parent, `parentPid`, had ended before.
bool endWithParent(pid_t parentPid);

} // namespace flasher
