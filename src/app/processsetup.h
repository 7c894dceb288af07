#pragma once

/// Makes the process independent of the settings of its parent. Call it once, before anything
/// opens a descriptor.
///
/// - Opens closed standard descriptors on /dev/null. Otherwise, a socket or the serial line could
///   get their numbers and receive log lines.
/// - Raises the limit of open descriptors to the hard limit.
/// - Unblocks all signals and resets SIGCHLD.
/// - Makes a write to a broken pipe, or to a file at its size limit, fail without ending the
///   process. Child processes start with the default reaction to both.
void prepareProcess();
