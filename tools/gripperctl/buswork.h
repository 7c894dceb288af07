#pragma once

#include "gripperstate.h"

namespace gripperctl {

class Session;

/// Throws Failure while a flasher has the line.
void refuseDuringUpgrade(Session &session);

/// Makes the daemon scan, and waits for the end of the scan. Returns the ids of the grippers found.
QVector<int> scanNow(Session &session);

/// Scans until it has found all these grippers, at most three times. Returns the missing ids.
QVector<int> scanForMissing(Session &session, const QVector<int> &ids);

/// Scans as scanForMissing() does for one gripper, which may need time to restart. Returns whether
/// a scan found it.
bool scanUntilFound(Session &session, int id);

} // namespace gripperctl
