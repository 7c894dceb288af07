#include "commands.h"

#include "buswork.h"
#include "failure.h"
#include "flashwait.h"
#include "mutedpolling.h"
#include "session.h"

#include <cstdio>

#include <unistd.h>

namespace {

constexpr int jumpTimeoutMs = 60'000;

void askOnTerminal(const GripperState &gripper)
{
    std::fprintf(stderr,
                 "Write new firmware into gripper %d (%s, serial %s)? It must not be switched off "
                 "meanwhile. [y/N] ",
                 gripper.id(), qPrintable(gripper.firmware()), qPrintable(gripper.serialNumber()));
    const int answer = std::getchar();
    if (answer != 'y' && answer != 'Y')
        throw Failure{ExitCode::Interrupted, QStringLiteral("left as it was")};
}

void makeSure(Session &session, const GripperState &gripper)
{
    if (session.options().has("yes"))
        return;
    if (::isatty(STDIN_FILENO) != 1 || session.output().isJson()) {
        throw Failure{ExitCode::WrongUsage,
                      QStringLiteral("an upgrade writes new firmware into the gripper: say --yes")};
    }
    askOnTerminal(gripper);
}

/// Not interruptible: only the answer tells whether polling has to be unmuted.
bool requestUpgrade(Session &session, int id)
{
    Output &output = session.output();
    output.begin(QStringLiteral("gripper %1: entering its bootloader").arg(id));
    const bool isAccepted = session.connection().set(
        QStringLiteral("UPG 1"),
        {jumpTimeoutMs, false, [&output](qint64 elapsedMs) { output.tick(elapsedMs); }});
    output.endStage();
    return isAccepted;
}

/// What the user has to know after a failure; polling goes on.
QString presentState(Session &session, int id)
{
    if (!scanUntilFound(session, id)) {
        return QStringLiteral("Polling goes on, but gripper %1 does not answer any more: switch it "
                              "off and on, then gripperctl scan")
            .arg(id);
    }
    session.connection().select(id);
    return QStringLiteral("Polling goes on, and gripper %1 runs firmware %2")
        .arg(id)
        .arg(session.connection().get(QStringLiteral("FWV")));
}

[[noreturn]] void fail(Session &session, int id, const QString &problem)
{
    QString state;
    try {
        state = presentState(session, id);
    } catch (const Failure &failure) {
        // What is wrong with the upgrade is not lost over it.
        state = QStringLiteral("Polling goes on; more is not known: ") + failure.text;
    }
    throw Failure{ExitCode::Refused, problem + QLatin1Char(' ') + state};
}

/// A gripper in its bootloader would take the firmware that is meant for another. The list still
/// has it until somebody scans. A list with one gripper needs no scan, which would lose that one.
void refuseBesideBootloader(Session &session, int id)
{
    const QVector<int> listed = session.connection().grippers();
    if (listed == QVector<int>{id})
        return;
    const QVector<int> missing = scanForMissing(session, listed);
    if (missing.isEmpty())
        return;
    throw Failure{
        ExitCode::Refused,
        QStringLiteral("nothing was written, because gripper %1 does not answer: if it is "
                       "in its bootloader, it would take the firmware of gripper %2. "
                       "Switch it off and on, or unplug it. Upgrade only when gripperctl "
                       "scan shows it, or when it is unplugged")
            .arg(listOfIds(missing))
            .arg(id)};
}

/// Returns when the flasher has ended and polling goes on.
void flash(Session &session, int id)
{
    MutedPolling muted(session);
    muted.letLineFallSilent();
    refuseBesideBootloader(session, id);
    const Values atFirst = linkValues(session);
    if (!requestUpgrade(session, id)) {
        // One of another client is refused so, too.
        refuseDuringUpgrade(session);
        muted.unmute();
        fail(session, id, QStringLiteral("the gripper was not found in its bootloader."));
    }
    switch (waitForFlasher(session, muted, atFirst)) {
    case FlasherEnd::Ended:
        return;
    case FlasherEnd::NeverStarted:
        fail(session, id,
             QStringLiteral("the flasher did not start, and polling stayed muted until now: is "
                            "./romflasher where gripperd runs, and executable?"));
    }
}

QString verdict(const QString &before, const QString &after)
{
    if (before != after)
        return QStringLiteral("firmware %1 -> %2").arg(before, after);
    return QStringLiteral("firmware %1, as before").arg(after);
}

/// The protocol does not tell the flasher's exit code: an unchanged version may be the same
/// firmware written again, or a flasher that failed before it wrote.
void judge(Session &session, int id, const QString &before, const QString &after)
{
    const bool isExpected = session.options().has("expect")
                                ? session.options().text("expect") == after
                                : before != after;
    if (!isExpected) {
        throw Failure{ExitCode::Refused,
                      QStringLiteral("gripper %1 runs %2: the daemon's log tells what the flasher "
                                     "did (journalctl -u gripperd)")
                          .arg(id)
                          .arg(verdict(before, after))};
    }
    session.output().result(QStringLiteral("gripper %1: %2").arg(id).arg(verdict(before, after)),
                            {{QStringLiteral("gripper"), id},
                             {QStringLiteral("old"), before},
                             {QStringLiteral("new"), after}});
}

} // namespace

void commands::upgrade(Session &session)
{
    const int id = session.selectGripper();
    const GripperState before = GripperState::read(session.connection(), id);
    refuseDuringUpgrade(session);
    makeSure(session, before);
    // The answer may have taken its time.
    refuseDuringUpgrade(session);
    flash(session, id);
    if (!scanUntilFound(session, id)) {
        throw Failure{
            ExitCode::NoGripper,
            QStringLiteral("gripper %1 does not answer after the upgrade: its firmware "
                           "may be incomplete. Switch it off and on and flash it by hand, "
                           "as the manual of romflasher tells")
                .arg(id)};
    }
    session.connection().select(id);
    judge(session, id, before.firmware(), session.connection().get(QStringLiteral("FWV")));
}
