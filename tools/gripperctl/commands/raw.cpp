#include "commands.h"

#include "failure.h"
#include "mutedpolling.h"
#include "session.h"

#include <algorithm>

namespace gripperctl {

namespace {

constexpr int slowTimeoutMs = 60'000;

QStringList upperNames(const QStringList &words)
{
    QStringList names;
    for (const QString &word : words) {
        if (!isGetName(word)) {
            throw Failure{
                ExitCode::WrongUsage,
                QStringLiteral("\"%1\" is not the name of a value: a name has three letters; see "
                               "gripperctl get --help")
                    .arg(word)};
        }
        names.append(word.toUpper());
    }
    return names;
}

QString textOf(const Values &values, const QStringList &names)
{
    if (names.size() == 1)
        return values.value(names.first());
    QStringList lines;
    for (const QString &name : names)
        lines.append(QStringLiteral("%1 %2").arg(name, values.value(name)));
    return lines.join(QLatin1Char('\n'));
}

QJsonObject jsonOf(const Values &values)
{
    QJsonObject json;
    for (auto value = values.begin(); value != values.end(); ++value)
        json.insert(value.key(), value.value());
    return json;
}

/// gripperctl has safer commands or options for these variables.
void refuseGuarded(const QStringList &words)
{
    const std::pair<const char *, const char *> guarded[] = {
        {"NID", "use gripperctl rename instead of NID; it also checks that the id is free"},
        {"UPG", "use gripperctl upgrade instead of UPG; it also waits for the flasher"},
        // SID does not apply to other pairs in the same request.
        {"SID", "use --gripper ID instead of SID, which ends with this connection"}};
    for (const auto &[name, problem] : guarded) {
        if (words.contains(QLatin1String(name), Qt::CaseInsensitive))
            throw Failure{ExitCode::WrongUsage, QString::fromLatin1(problem)};
    }
}

template <typename Wanted>
bool anyNamed(const QStringList &words, Wanted isWanted)
{
    return std::any_of(words.begin(), words.end(), [&](const QString &word) {
        const SetName *row = findSetName(word);
        return row != nullptr && isWanted(*row);
    });
}

bool sendPairs(Session &session, const QStringList &words, bool isInterruptible = true)
{
    const bool isSlow = anyNamed(words, [](const auto &row) { return row.takesSeconds; });
    const int timeoutMs = session.timeoutMs(isSlow ? slowTimeoutMs : 10'000);
    return session.connection().set(words.join(QLatin1Char(' ')), {timeoutMs, isInterruptible});
}

/// Polling stays muted, because the bootloader then has the line. Not interruptible: the daemon
/// mutes polling at the end of a jump, so the state of MUTE is known only after its answer.
bool sendIntoBootloader(Session &session, const QStringList &words)
{
    MutedPolling muted(session);
    muted.waitForSilentLine();
    if (!sendPairs(session, words, false))
        return false;
    muted.leaveMuted();
    session.output().note(QStringLiteral("polling stays muted until gripperctl set MUTE 0"));
    return true;
}

} // namespace

void runGet(Session &session)
{
    const QStringList names = upperNames(session.options().arguments);
    if (!std::all_of(names.begin(), names.end(), isDaemonValue))
        session.selectGripper();
    const Values values = session.connection().get(names);
    const QString unknown = values.key(noValue());
    if (!unknown.isEmpty()) {
        session.output().partialResult(textOf(values, names));
        throw Failure{
            ExitCode::Refused,
            QStringLiteral("gripperd has no value of %1: check the name, and whether the gripper "
                           "answers (gripperctl status)")
                .arg(unknown),
            jsonOf(values)};
    }
    session.output().result(textOf(values, names), jsonOf(values));
}

void runSet(Session &session)
{
    const QStringList words = session.options().arguments;
    checkPairs(words);
    refuseGuarded(words);
    if (anyNamed(words, [](const auto &row) { return row.needsGripper; }))
        session.selectGripper();
    const bool entersBootloader = words.contains(QStringLiteral("BLD"), Qt::CaseInsensitive);
    const bool isAcknowledged =
        entersBootloader ? sendIntoBootloader(session, words) : sendPairs(session, words);
    if (!isAcknowledged)
        throw Failure{ExitCode::Refused,
                      QStringLiteral("gripperd refused the request (nak): check the range of each "
                                     "number, and the gripper (gripperctl status)")};
    session.output().result(QStringLiteral("ack"),
                            {{QStringLiteral("reply"), QStringLiteral("ack")}});
}

} // namespace gripperctl
