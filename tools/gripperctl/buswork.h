#pragma once

#include "gripperstate.h"

class Session;

/// Throws a Failure while the line belongs to a flashing program.
void refuseDuringUpgrade(Session &session);

/// Lets the daemon look for grippers and waits for the end: what it knows of them is fresh then.
/// Returns the ids.
QVector<int> scanNow(Session &session);

/// Scans until all these grippers are there, three times at most. Returns those that are not.
QVector<int> scanForMissing(Session &session, const QVector<int> &ids);

/// Scans again and again until the gripper is there, which takes a while after a restart. False if
/// it does not come.
bool scanUntilFound(Session &session, int id);
