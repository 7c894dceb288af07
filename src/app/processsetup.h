#pragma once

/// Makes the process independent of the settings of its parent. Call it once, before anything
/// opens a descriptor.
///
/// - Opens closed standard descriptors on /dev/null. Otherwise, a socket or the serial line could
///   get the number of one of them, and log lines would go into it.
///
/// - Raises the limit of open descriptors to the hard limit.
///
/// - Unblocks all signals and resets SIGCHLD.
///
/// - Lets a write to a broken pipe, or to a file at its size limit, fail without ending the
///   process. Child processes start with the default reaction to both signals.
void prepareProcess();
