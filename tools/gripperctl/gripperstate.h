#pragma once

#include "protocol.h"

#include <QJsonObject>

namespace gripperctl {

class Connection;

/// The values of one gripper in one reply of the daemon.
class GripperState
{
public:
    enum class Status { Inactive = 0, Activating = 1, Releasing = 2, Active = 3 };
    enum class Object { None = 0, Moving = 1, Met = 2, Reached = 3 };

    GripperState(int id, const Values &values);

    /// Reads the gripper that the connection addresses. It must be gripper `id`.
    static GripperState read(Connection &connection, int id);

    /// The variables that read() asks for.
    static const QStringList &names();

    int id() const { return m_id; }
    /// Whether the daemon lists the gripper.
    bool isThere() const;
    /// The state of the link in the same reply.
    QString link() const { return text("DRI"); }
    /// Whether the gripper is listed and the link runs. Otherwise its values are old.
    bool isLive() const { return isThere() && link() == QLatin1String("RUNNING"); }

    QString firmware() const { return text("FWV"); }
    QString serialNumber() const { return text("SNU"); }
    /// The product family, from the second letter of the firmware version; empty if it is unknown.
    QString family() const;
    bool isVacuum() const;

    Status status() const { return static_cast<Status>(number("STA")); }
    Object object() const { return static_cast<Object>(number("OBJ")); }
    int position() const { return number("POS"); }
    /// The requested position that the gripper shows; it may be older than the last SET.
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
