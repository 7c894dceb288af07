#include "protocol.h"

#include "failure.h"

#include <QRegularExpression>

#include <algorithm>
#include <array>
#include <iterator>

namespace gripperctl {

namespace {

constexpr std::array<SetName, 21> setNames{{
    {"ACT", true, false},       {"MOD", true, false},       {"GTO", true, false},
    {"ATR", true, false},       {"ARD", true, false},       {"LBP", true, false},
    {"LGN", true, false},       {"LRD", true, false},       {"LBL", true, false},
    {"MSC", true, false},       {"POS", true, false},       {"SPE", true, false},
    {"FOR", true, false},       {"SCN_BLOCK", false, true}, {"SCN", false, false},
    {"NID", true, true},        {"SID", false, false},      {"MUTE", false, false},
    {"THROTTLE", false, false}, {"UPG", true, true},        {"BLD", true, true},
}};

constexpr int maxValue = 255;

bool isValue(const QString &word)
{
    // The daemon reads only the first three digits.
    static const QRegularExpression form(QStringLiteral(R"(\A[0-9]{1,3}\z)"));
    return form.match(word).hasMatch() && word.toInt() <= maxValue;
}

bool startsLikeNumber(const QString &word)
{
    return word.startsWith(QLatin1Char('-')) || (!word.isEmpty() && word.front().isDigit());
}

[[noreturn]] void refuse(const QString &problem)
{
    throw Failure{ExitCode::WrongUsage, problem + QStringLiteral("; see gripperctl set --help")};
}

} // namespace

QString noValue()
{
    return QStringLiteral("?");
}

std::optional<Reply> parseReply(const QString &line)
{
    const int blank = line.indexOf(QLatin1Char(' '));
    if (blank < 0 || !isGetName(line.left(blank)))
        return std::nullopt;
    return Reply{line.left(blank), line.mid(blank + 1)};
}

std::optional<QVector<int>> parseIds(const QString &text)
{
    static const QRegularExpression form(QStringLiteral(R"(\A\[(\d+(, \d+)*)?\]\z)"));
    if (!form.match(text).hasMatch())
        return std::nullopt;
    const QStringList words =
        text.mid(1, text.size() - 2).split(QStringLiteral(", "), Qt::SkipEmptyParts);
    QVector<int> ids;
    std::transform(words.begin(), words.end(), std::back_inserter(ids),
                   [](const QString &word) { return word.toInt(); });
    return ids;
}

bool isGetName(const QString &name)
{
    static const QRegularExpression form(QStringLiteral(R"(\A[A-Za-z0-9_]{3}\z)"));
    return form.match(name).hasMatch();
}

bool isDaemonValue(const QString &name)
{
    static const QStringList names{QStringLiteral("VER"), QStringLiteral("DRI"),
                                   QStringLiteral("SID"), QStringLiteral("UPG"),
                                   QStringLiteral("DST"), QStringLiteral("PCO")};
    return names.contains(name, Qt::CaseInsensitive);
}

const SetName *findSetName(const QString &name)
{
    const auto *row = std::find_if(setNames.begin(), setNames.end(), [&](const SetName &known) {
        return name.compare(QLatin1String(known.name), Qt::CaseInsensitive) == 0;
    });
    return row == setNames.end() ? nullptr : row;
}

void checkPairs(const QStringList &words)
{
    bool mayBeValue = false;
    for (const QString &word : words) {
        if (startsLikeNumber(word)) {
            if (!mayBeValue)
                refuse(QStringLiteral("there is no name before \"%1\"").arg(word));
            if (!isValue(word)) {
                refuse(
                    QStringLiteral("\"%1\" is not a number from 0 to 255 of at most three digits")
                        .arg(word));
            }
        } else if (findSetName(word) == nullptr) {
            refuse(QStringLiteral("there is no variable \"%1\" to set").arg(word));
        }
        mayBeValue = !startsLikeNumber(word);
    }
}

const QVector<int> &scannedIds()
{
    static const QVector<int> ids{9, 2, 3, 4};
    return ids;
}

} // namespace gripperctl
