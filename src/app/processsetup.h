#pragma once

/// Makes the process fit to serve for weeks, whatever started it. Called once, first thing.
/// - Standard descriptors that were closed are opened on /dev/null, so that log lines never end up
///   in a socket or on the serial line.
/// - The limit of open descriptors is raised as far as the process may.
/// - A broken pipe is an error of the write, not the end of the process.
void prepareProcess();
