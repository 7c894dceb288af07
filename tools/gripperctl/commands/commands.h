#pragma once

namespace gripperctl {

class Session;

// One file per command. Each function returns when its command has succeeded, and throws Failure
// otherwise.

void runStatus(Session &session);
void runGet(Session &session);
void runSet(Session &session);
void runActivate(Session &session);
void runMove(Session &session);
void runOpen(Session &session);
void runClose(Session &session);
void runRelease(Session &session);
void runLed(Session &session);
void runScan(Session &session);
void runRename(Session &session);
void runUpgrade(Session &session);
void runWatch(Session &session);
void runRecord(Session &session);
void runPlot(Session &session);

} // namespace gripperctl
