#pragma once

/// Makes the process fit to serve for weeks, whatever started it. Called once, first thing.
/// - Standard descriptors that were closed are opened on /dev/null, so that log lines never end up
///   in a socket or on the serial line.
/// - The limit of open descriptors is raised as far as the process may.
/// - Signals that the parent blocks reach the process, and so do the ends of its child processes.
/// - A broken pipe and a file at its size limit fail the write and do not end the process. Child
///   processes start with the default for both.
void prepareProcess();
