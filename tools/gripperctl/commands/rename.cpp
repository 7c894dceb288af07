#include "commands.h"

#include "buswork.h"
#include "failure.h"
#include "mutedpolling.h"
#include "session.h"

namespace gripperctl {

namespace {

// The gripper needs six seconds, and the scan after that a few more.
constexpr int renameTimeoutMs = 60'000;

int idFrom(const QString &word)
{
    bool isNumber = false;
    const int id = word.toInt(&isNumber);
    if (!isNumber || id < 1 || id > 9) {
        throw Failure{ExitCode::WrongUsage,
                      QStringLiteral("an id is a number from 1 to 9, not \"%1\"").arg(word)};
    }
    return id;
}

void refuseUnscanned(int id)
{
    if (scannedIds().contains(id))
        return;
    throw Failure{ExitCode::WrongUsage,
                  QStringLiteral("no scan looks for id %1, so the daemon would never find the "
                                 "gripper again: use one of %2")
                      .arg(id)
                      .arg(listOfIds(scannedIds()))};
}

void refuseInUse(int id, const QVector<int> &found)
{
    if (!found.contains(id))
        return;
    throw Failure{
        ExitCode::Refused,
        QStringLiteral("id %1 is in use, and two grippers with one id disturb each other: "
                       "rename gripper %1 first")
            .arg(id)};
}

void sendRename(Session &session, int from, int to)
{
    Output &output = session.output();
    output.begin(QStringLiteral("gripper %1: storing id %2, restarting, scanning (about 10 s)")
                     .arg(from)
                     .arg(to));
    try {
        session.connection().set(QStringLiteral("NID %1").arg(to),
                                 {session.timeoutMs(renameTimeoutMs), true,
                                  [&output](qint64 elapsedMs) { output.tick(elapsedMs); }});
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
        throw Failure{
            failure.code,
            QStringLiteral("interrupted: gripperd continues the renaming. In ten seconds, "
                           "gripperctl scan shows the id of the gripper")};
    }
    output.endStage();
}

/// Mutes polling meanwhile. Returns the serial number of the gripper.
QString renameOnSilentLine(Session &session, int from, int to)
{
    MutedPolling muted(session);
    muted.waitForSilentLine();
    // A gripper that was plugged in after the last scan is not listed, but uses its id.
    const QVector<int> found = scanNow(session);
    chooseGripper(found, from, session.connection().get(QStringLiteral("DRI")));
    refuseInUse(to, found);
    session.connection().select(from);
    QString serialNumber = session.connection().get(QStringLiteral("SNU"));
    sendRename(session, from, to);
    muted.unmute();
    return serialNumber;
}

[[noreturn]] void failUnrenamed(Session &session, int from, int to)
{
    if (scanUntilFound(session, from)) {
        throw Failure{
            ExitCode::Refused,
            QStringLiteral("gripper %1 kept its id. Switch it off and on, then run gripperctl "
                           "scan: it may have stored %2. If not, try again; the cause is in the "
                           "daemon's log (journalctl -u gripperd)")
                .arg(from)
                .arg(to)};
    }
    throw Failure{ExitCode::NoGripper,
                  QStringLiteral("the gripper answers neither as %1 nor as %2: switch it off and "
                                 "on, then run gripperctl scan")
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
        throw Failure{ExitCode::WrongUsage, QStringLiteral("the old and the new id are the same")};
    refuseDuringUpgrade(session);
    refuseInUse(to, session.connection().grippers());
    const QString serialNumber = renameOnSilentLine(session, from, to);
    // The daemon acknowledges every NID. Only the gripper at the new id shows whether it succeeded.
    const bool isThere = session.connection().select(to) &&
                         session.connection().get(QStringLiteral("SNU")) == serialNumber;
    if (!isThere)
        failUnrenamed(session, from, to);
    session.output().result(QStringLiteral("gripper %1 (serial %2) is gripper %3 now")
                                .arg(from)
                                .arg(serialNumber)
                                .arg(to),
                            {{QStringLiteral("old"), from},
                             {QStringLiteral("new"), to},
                             {QStringLiteral("serialNumber"), serialNumber}});
}

} // namespace gripperctl
