#pragma once

/// Makes the process independent of the settings of its parent. Call it once, before anything
/// opens a descriptor.
///
/// - Opens closed standard descriptors on /dev/null. Otherwise, log lines would go to a socket or
/// to
///   the serial line.
/// - Raises the limit of open descriptors as far as possible.
/// - Unblocks all signals and resets SIGCHLD.
/// - Lets writes to a broken pipe, or to a file at its size limit, fail without a signal. Child
///   processes start with the default for both.
void prepareProcess();
