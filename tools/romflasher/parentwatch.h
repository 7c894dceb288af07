#pragma once

#include <sys/types.h>

namespace flasher {

/// Makes the kernel kill this process when its parent ends. Returns false if the parent, process
/// `parentPid`, ended before this call.
bool endWithParent(pid_t parentPid);

} // namespace flasher
