#include "protocol.h"

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

constexpr int greatestValue = 255;

bool isValue(const QString &word)
{
    // Of more digits the daemon takes the first three.
    static const QRegularExpression form(QStringLiteral(R"(\A[0-9]{1,3}\z)"));
    return form.match(word).hasMatch() && word.toInt() <= greatestValue;
}

bool startsLikeNumber(const QString &word)
{
    return word.startsWith(QLatin1Char('-')) || (!word.isEmpty() && word.front().isDigit());
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

QString problemInPairs(const QStringList &words)
{
    bool mayBeValue = false;
    for (const QString &word : words) {
        if (startsLikeNumber(word)) {
            if (!mayBeValue)
                return QStringLiteral("\"%1\" has no name before it").arg(word);
            if (!isValue(word))
                return QStringLiteral("\"%1\" is not a number of 0 to 255, in three digits at most")
                    .arg(word);
        } else if (findSetName(word) == nullptr) {
            return QStringLiteral("\"%1\" is no variable that can be set").arg(word);
        }
        mayBeValue = !startsLikeNumber(word);
    }
    return QString();
}

const QVector<int> &scannedIds()
{
    static const QVector<int> ids{9, 2, 3, 4};
    return ids;
}

} // namespace gripperctl
