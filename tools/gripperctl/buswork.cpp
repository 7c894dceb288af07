#include "buswork.h"

#include "failure.h"
#include "interruption.h"
#include "session.h"

namespace {

constexpr int scanTimeoutMs = 60'000;
constexpr int attempts = 3;
constexpr int pauseMs = 1000;

} // namespace

void refuseDuringUpgrade(Session &session)
{
    if (session.connection().get(QStringLiteral("UPG")) == QLatin1String("0"))
        return;
    throw Failure{ExitCode::Refused,
                  QStringLiteral("an upgrade is under way and has the line: wait until "
                                 "gripperctl get UPG prints 0")};
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

bool scanUntilFound(Session &session, int id)
{
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (attempt > 0)
            pauseFor(pauseMs);
        if (scanNow(session).contains(id))
            return true;
    }
    return false;
}
