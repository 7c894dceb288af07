#pragma once

/// Makes the process fit to serve for weeks, whatever started it. Called once, first thing.
/// - Standard descriptors that were closed are opened on /dev/null, so that log lines never end up
///   in a socket or on the serial line.
/// - The limit of open descriptors is raised as far as the process may.
/// - The stack may grow far beyond the usual limit: every client's request that waits on the bus
///   inside the wait of another one lies on it.
/// - A broken pipe is an error of the write, not the end of the process.
void prepareProcess();
