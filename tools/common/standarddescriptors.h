#pragma once

namespace tools {

/// Opens /dev/null on those of the descriptors 0 to 2 that are closed. Otherwise the next file,
/// socket or pty gets such a number, and output meant for the user goes into it. Call this first in
/// main().
void occupyStandardDescriptors();

} // namespace tools
