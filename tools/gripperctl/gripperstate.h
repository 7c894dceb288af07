#pragma once

#include "protocol.h"

#include <QJsonObject>

namespace gripperctl {

class Connection;

/// One gripper as the daemon knew it at one moment.
class GripperState
{
public:
    enum class Status { Inactive = 0, Activating = 1, Releasing = 2, Active = 3 };
    enum class Object { None = 0, Moving = 1, Met = 2, Reached = 3 };

    GripperState(int id, const Values &values);

    /// Of the gripper that the connection addresses, which is `id`.
    static GripperState read(Connection &connection, int id);

    /// The variables that read() asks for.
    static const QStringList &names();

    int id() const { return m_id; }
    /// Whether the daemon has such a gripper.
    bool isThere() const;
    /// The state of the link at the same moment.
    QString link() const { return text("DRI"); }
    /// Whether the gripper is there and answers; otherwise its values are those of before.
    bool isLive() const { return isThere() && link() == QLatin1String("RUNNING"); }

    QString firmware() const { return text("FWV"); }
    QString serialNumber() const { return text("SNU"); }
    /// The product family, from the second letter of the firmware version; empty if it is unknown.
    QString family() const;
    bool isVacuum() const;

    Status status() const { return static_cast<Status>(number("STA")); }
    Object object() const { return static_cast<Object>(number("OBJ")); }
    int position() const { return number("POS"); }
    /// The last request that the gripper has taken.
    int requestedPosition() const { return number("PRE"); }
    bool goesTo() const { return number("GTO") != 0; }
    int current() const { return number("COU"); }
    int fault() const { return number("FLT"); }

    QString statusText() const;
    QString objectText() const;

    QString text(const char *name) const;
    int number(const char *name) const;

    QJsonObject toJson() const;

private:
    int m_id;
    Values m_values;
};

} // namespace gripperctl
