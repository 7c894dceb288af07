#include "commands.h"

#include "buswork.h"
#include "failure.h"
#include "mutedpolling.h"
#include "session.h"

namespace gripperctl {

namespace {

// The gripper needs six seconds, the scan behind that a few more.
constexpr int moveTimeoutMs = 60'000;

int idFrom(const QString &word)
{
    bool isNumber = false;
    const int id = word.toInt(&isNumber);
    if (!isNumber || id < 1 || id > 9) {
        throw Failure{ExitCode::WrongUsage,
                      QStringLiteral("an id is a number of 1 to 9, not \"%1\"").arg(word)};
    }
    return id;
}

void refuseUnscanned(int id)
{
    if (scannedIds().contains(id))
        return;
    throw Failure{ExitCode::WrongUsage,
                  QStringLiteral("no scan ever looks for id %1, so the gripper would be lost for "
                                 "good: take %2")
                      .arg(id)
                      .arg(listOfIds(scannedIds()))};
}

void refuseInUse(int id, const QVector<int> &found)
{
    if (!found.contains(id))
        return;
    throw Failure{ExitCode::Refused,
                  QStringLiteral("id %1 is in use: two grippers with one id disturb each other. "
                                 "Rename that one first")
                      .arg(id)};
}

void sendMove(Session &session, int from, int to)
{
    Output &output = session.output();
    output.begin(QStringLiteral("gripper %1: storing id %2, restarting, scanning (about 10 s)")
                     .arg(from)
                     .arg(to));
    try {
        session.connection().set(QStringLiteral("NID %1").arg(to),
                                 {session.timeoutMs(moveTimeoutMs), true,
                                  [&output](qint64 elapsedMs) { output.tick(elapsedMs); }});
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
        throw Failure{failure.code,
                      QStringLiteral("interrupted: gripperd goes on with it. In ten seconds "
                                     "gripperctl scan shows which id the gripper has")};
    }
    output.endStage();
}

/// On a silent line. Returns the serial number of the gripper that has been told to move.
QString moveOnSilentLine(Session &session, int from, int to)
{
    MutedPolling muted(session);
    muted.letLineFallSilent();
    // A gripper that was plugged in since the last scan is on no list, and has its id all the same.
    const QVector<int> found = scanNow(session);
    chooseGripper(found, from, session.connection().get(QStringLiteral("DRI")));
    refuseInUse(to, found);
    session.connection().select(from);
    QString serialNumber = session.connection().get(QStringLiteral("SNU"));
    sendMove(session, from, to);
    muted.unmute();
    return serialNumber;
}

[[noreturn]] void failUnmoved(Session &session, int from, int to)
{
    if (scanUntilFound(session, from)) {
        throw Failure{
            ExitCode::Refused,
            QStringLiteral("gripper %1 kept its id. Switch it off and on, then gripperctl "
                           "scan: it may have stored %2. If not, try again; the "
                           "daemon's log tells more")
                .arg(from)
                .arg(to)};
    }
    throw Failure{ExitCode::NoGripper,
                  QStringLiteral("the gripper answers neither as %1 nor as %2: switch it off and "
                                 "on, then gripperctl scan")
                      .arg(from)
                      .arg(to)};
}

} // namespace

void runRename(Session &session)
{
    const int from = idFrom(session.options().arguments.at(0));
    const int to = idFrom(session.options().arguments.at(1));
    refuseUnscanned(to);
    if (from == to)
        throw Failure{ExitCode::WrongUsage, QStringLiteral("the gripper has that id already")};
    refuseDuringUpgrade(session);
    refuseInUse(to, session.connection().grippers());
    const QString serialNumber = moveOnSilentLine(session, from, to);
    // Every move is acknowledged: who answers there now tells whether it came to pass.
    const bool isThere = session.connection().select(to) &&
                         session.connection().get(QStringLiteral("SNU")) == serialNumber;
    if (!isThere)
        failUnmoved(session, from, to);
    session.output().result(QStringLiteral("gripper %1 (serial %2) is gripper %3 now")
                                .arg(from)
                                .arg(serialNumber)
                                .arg(to),
                            {{QStringLiteral("old"), from},
                             {QStringLiteral("new"), to},
                             {QStringLiteral("serialNumber"), serialNumber}});
}

} // namespace gripperctl
