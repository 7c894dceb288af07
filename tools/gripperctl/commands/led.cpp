#include "commands.h"

#include "failure.h"
#include "session.h"

namespace gripperctl {

namespace {

const QString automatic = QStringLiteral("auto");
const QString off = QStringLiteral("off");
const QStringList colours{QStringLiteral("red"), QStringLiteral("green"), QStringLiteral("blue")};

void check(const QStringList &words)
{
    for (const QString &word : words) {
        const bool isOnlyWord = (word == automatic || word == off) && words.size() == 1;
        if (!colours.contains(word) && !isOnlyWord) {
            throw Failure{
                ExitCode::WrongUsage,
                QStringLiteral("led takes any of red, green and blue, or only off, or only auto, "
                               "not \"%1\"")
                    .arg(words.join(QLatin1Char(' ')))};
        }
    }
}

QString requestFor(const QStringList &words)
{
    const auto bit = [&words](const char *colour) {
        return words.contains(QLatin1String(colour)) ? 1 : 0;
    };
    return QStringLiteral("LBP %1 LRD %2 LGN %3 LBL %4")
        .arg(words.first() == automatic ? 0 : 1)
        .arg(bit("red"))
        .arg(bit("green"))
        .arg(bit("blue"));
}

} // namespace

void runLed(Session &session)
{
    const QStringList words = session.options().arguments;
    check(words);
    const int id = session.selectGripper();
    session.connection().set(requestFor(words));
    const QString text = words.join(QLatin1Char(' '));
    session.output().result(QStringLiteral("gripper %1: led %2").arg(id).arg(text),
                            {{QStringLiteral("gripper"), id}, {QStringLiteral("led"), text}});
}

} // namespace gripperctl
