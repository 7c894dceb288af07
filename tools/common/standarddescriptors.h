#pragma once

namespace tools {

/// Opens /dev/null on each of the descriptors 0 to 2 that is closed. Otherwise the next file,
/// socket or pty gets one of these numbers, and output for the user goes into it. Call this first
/// in main().
void occupyStandardDescriptors();

} // namespace tools
