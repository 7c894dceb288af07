#include "snapshot.h"

#include "session.h"

#include <QJsonArray>

#include <algorithm>

namespace gripperctl {

namespace {

QVector<int> idsIn(const QString &list, std::optional<int> wanted)
{
    QVector<int> ids = parseIds(list).value_or(QVector<int>());
    if (wanted) {
        const auto isOther = [&](int id) { return id != *wanted; };
        ids.erase(std::remove_if(ids.begin(), ids.end(), isOther), ids.end());
    }
    return ids;
}

} // namespace

Snapshot Snapshot::take(Session &session)
{
    Connection &connection = session.connection();
    const Values values = connection.get(
        QStringList{QStringLiteral("VER"), QStringLiteral("DRI"), QStringLiteral("SID")});
    Snapshot snapshot{QDateTime::currentDateTime(),
                      values.value(QStringLiteral("VER")),
                      values.value(QStringLiteral("DRI")),
                      {}};
    const QVector<int> ids =
        idsIn(values.value(QStringLiteral("SID")), session.options().whole("gripper"));
    for (const int id : ids) {
        if (!connection.select(id))
            continue;
        const GripperState state = GripperState::read(connection, id);
        if (state.isThere())
            snapshot.grippers.append(state);
    }
    return snapshot;
}

QJsonObject Snapshot::toJson() const
{
    QJsonArray states;
    for (const GripperState &state : grippers)
        states.append(state.toJson());
    return {
        {QStringLiteral("time"), time.toUTC().toString(Qt::ISODateWithMs)},
        {QStringLiteral("driver"), driver},
        {QStringLiteral("link"), link},
        {QStringLiteral("grippers"), states},
    };
}

} // namespace gripperctl
