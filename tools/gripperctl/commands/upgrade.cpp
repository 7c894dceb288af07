#include "commands.h"

#include "buswork.h"
#include "failure.h"
#include "flashwait.h"
#include "mutedpolling.h"
#include "session.h"

#include <cstdio>

#include <unistd.h>

namespace gripperctl {

namespace {

constexpr int jumpTimeoutMs = 60'000;

void askOnTerminal(const GripperState &gripper)
{
    std::fprintf(stderr,
                 "Write new firmware into gripper %d (%s, serial %s)? Do not switch it off "
                 "meanwhile. [y/N] ",
                 gripper.id(), qPrintable(gripper.firmware()), qPrintable(gripper.serialNumber()));
    const int answer = std::getchar();
    if (answer != 'y' && answer != 'Y')
        throw Failure{ExitCode::Interrupted,
                      QStringLiteral("not confirmed: the gripper keeps its firmware")};
}

void confirm(Session &session, const GripperState &gripper)
{
    if (session.options().has("yes"))
        return;
    if (::isatty(STDIN_FILENO) != 1 || session.output().isJson()) {
        throw Failure{
            ExitCode::WrongUsage,
            QStringLiteral("an upgrade writes new firmware into the gripper: confirm it with "
                           "--yes")};
    }
    askOnTerminal(gripper);
}

/// Not interruptible: the answer decides whether polling has to be unmuted.
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

/// The state of the gripper, for the message of a failed upgrade. Call this after unmuting.
QString presentState(Session &session, int id)
{
    if (!scanUntilFound(session, id)) {
        return QStringLiteral(
                   "Polling continues, but gripper %1 does not answer: switch it off and "
                   "on, then run gripperctl scan")
            .arg(id);
    }
    session.connection().select(id);
    return QStringLiteral("Polling continues, and gripper %1 runs firmware %2")
        .arg(id)
        .arg(session.connection().get(QStringLiteral("FWV")));
}

[[noreturn]] void fail(Session &session, int id, const QString &problem)
{
    QString state;
    try {
        state = presentState(session, id);
    } catch (const Failure &failure) {
        // The message must still name the problem of the upgrade.
        state = QStringLiteral("Polling continues. The state of the gripper is unknown: ") +
                failure.text;
    }
    throw Failure{ExitCode::Refused, problem + QLatin1Char(' ') + state};
}

/// Another gripper in its bootloader would take the firmware of gripper `id`. The daemon lists it
/// until the next scan. If gripper `id` is the only one listed, no scan is needed; a scan might
/// lose it.
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

/// Returns when the flasher has ended and polling is unmuted.
void flash(Session &session, int id)
{
    MutedPolling muted(session);
    muted.waitForSilentLine();
    refuseBesideBootloader(session, id);
    const Values before = linkValues(session);
    if (!requestUpgrade(session, id)) {
        // The daemon also refuses while another client's upgrade runs.
        refuseDuringUpgrade(session);
        muted.unmute();
        fail(session, id, QStringLiteral("the gripper was not found in its bootloader."));
    }
    switch (waitForFlasher(session, muted, before)) {
    case FlasherEnd::Ended:
        return;
    case FlasherEnd::NeverStarted:
        fail(session, id,
             QStringLiteral("the flasher did not start, and polling was muted until now: is "
                            "romflasher in the working directory of gripperd, and executable?"));
    }
}

QString versionsText(const QString &before, const QString &after)
{
    if (before != after)
        return QStringLiteral("firmware %1 -> %2").arg(before, after);
    return QStringLiteral("firmware %1, as before").arg(after);
}

/// The daemon does not report the exit code of the flasher. After an unchanged version, either the
/// same firmware was written again, or the flasher failed before it wrote.
void checkVersion(Session &session, int id, const QString &before, const QString &after)
{
    const bool isExpected = session.options().has("expect")
                                ? session.options().text("expect") == after
                                : before != after;
    if (!isExpected) {
        throw Failure{ExitCode::Refused,
                      QStringLiteral("gripper %1 runs %2: see the messages of the flasher in the "
                                     "daemon's log (journalctl -u gripperd)")
                          .arg(id)
                          .arg(versionsText(before, after))};
    }
    session.output().result(
        QStringLiteral("gripper %1: %2").arg(id).arg(versionsText(before, after)),
        {{QStringLiteral("gripper"), id},
         {QStringLiteral("old"), before},
         {QStringLiteral("new"), after}});
}

} // namespace

void runUpgrade(Session &session)
{
    const int id = session.selectGripper();
    const GripperState before = GripperState::read(session.connection(), id);
    refuseDuringUpgrade(session);
    confirm(session, before);
    // Another client may have started an upgrade during the confirmation.
    refuseDuringUpgrade(session);
    flash(session, id);
    if (!scanUntilFound(session, id)) {
        throw Failure{
            ExitCode::NoGripper,
            QStringLiteral("gripper %1 does not answer after the upgrade: its firmware "
                           "may be incomplete. Switch it off and on, and flash it by hand: see "
                           "the manual of romflasher")
                .arg(id)};
    }
    session.connection().select(id);
    checkVersion(session, id, before.firmware(), session.connection().get(QStringLiteral("FWV")));
}

} // namespace gripperctl
