#include "buswork.h"

#include "failure.h"
#include "interruption.h"
#include "session.h"

#include <algorithm>
#include <iterator>

namespace gripperctl {

namespace {

constexpr int scanTimeoutMs = 60'000;
constexpr int maxScans = 3;
constexpr int pauseMs = 1000;

} // namespace

void refuseDuringUpgrade(Session &session)
{
    if (session.connection().get(QStringLiteral("UPG")) == QLatin1String("0"))
        return;
    throw Failure{ExitCode::Refused,
                  QStringLiteral("an upgrade is under way and has the line: wait until "
                                 "\"gripperctl get UPG\" prints 0")};
}

QVector<int> scanNow(Session &session)
{
    Output &output = session.output();
    output.begin(QStringLiteral("scanning the line"));
    session.connection().set(QStringLiteral("SCN_BLOCK"),
                             {session.timeoutMs(scanTimeoutMs), true,
                              [&output](qint64 elapsedMs) { output.tick(elapsedMs); }});
    output.endStage();
    return session.connection().grippers();
}

QVector<int> scanForMissing(Session &session, const QVector<int> &ids)
{
    QVector<int> missing;
    for (int scans = 0; scans < maxScans; ++scans) {
        if (scans > 0)
            pauseFor(pauseMs);
        const QVector<int> found = scanNow(session);
        missing.clear();
        std::copy_if(ids.begin(), ids.end(), std::back_inserter(missing),
                     [&found](int id) { return !found.contains(id); });
        if (missing.isEmpty())
            break;
    }
    return missing;
}

bool scanUntilFound(Session &session, int id)
{
    return scanForMissing(session, {id}).isEmpty();
}

} // namespace gripperctl
