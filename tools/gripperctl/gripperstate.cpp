#include "gripperstate.h"

#include "connection.h"

#include <algorithm>
#include <iterator>

namespace gripperctl {

namespace {

struct FamilyRow
{
    char letter; ///< the second character of the firmware version
    const char *name;
    bool isVacuum;
};

constexpr FamilyRow families[] = {
    {'A', "Pello", false},
    {'B', "Varno", false},
    {'E', "Zentra", true},
    {'F', "Sorbix", true},
};

/// Null for a version of no known family.
const FamilyRow *findFamily(const QString &firmware)
{
    const auto *row =
        std::find_if(std::begin(families), std::end(families), [&](const FamilyRow &known) {
            return firmware.midRef(1, 1) == QLatin1Char(known.letter);
        });
    return row == std::end(families) ? nullptr : row;
}

} // namespace

GripperState::GripperState(int id, const Values &values)
    : m_id(id)
    , m_values(values)
{
}

GripperState GripperState::read(Connection &connection, int id)
{
    return {id, connection.get(names())};
}

const QStringList &GripperState::names()
{
    // PRE and GTO, the request, come first: if a poll changes the values between two parts of a
    // split packet, the state of the movement is never older than the request.
    static const QStringList all = QStringLiteral("PRE GTO STA OBJ FLT POS COU ACT NCY FWV SNU PYE "
                                                  "DRI")
                                       .split(QLatin1Char(' '));
    return all;
}

bool GripperState::isThere() const
{
    return text("STA") != noValue();
}

QString GripperState::family() const
{
    const FamilyRow *row = findFamily(firmware());
    return row == nullptr ? QString() : QString::fromLatin1(row->name);
}

bool GripperState::isVacuum() const
{
    const FamilyRow *row = findFamily(firmware());
    return row != nullptr && row->isVacuum;
}

QString GripperState::statusText() const
{
    switch (status()) {
    case Status::Inactive:
        return QStringLiteral("inactive");
    case Status::Activating:
        return QStringLiteral("activating");
    case Status::Releasing:
        return QStringLiteral("released");
    case Status::Active:
        return QStringLiteral("active");
    }
    return text("STA");
}

QString GripperState::objectText() const
{
    switch (object()) {
    case Object::None:
        return QStringLiteral("-");
    case Object::Moving:
        return QStringLiteral("moving");
    case Object::Met:
        return isVacuum() ? QStringLiteral("leak") : QStringLiteral("object");
    case Object::Reached:
        return QStringLiteral("reached");
    }
    return text("OBJ");
}

QString GripperState::text(const char *name) const
{
    return m_values.value(QString::fromLatin1(name), noValue());
}

int GripperState::number(const char *name) const
{
    return text(name).toInt();
}

QJsonObject GripperState::toJson() const
{
    return {
        {QStringLiteral("id"), m_id},
        {QStringLiteral("family"), family()},
        {QStringLiteral("firmware"), firmware()},
        {QStringLiteral("serialNumber"), serialNumber()},
        {QStringLiteral("year"), number("PYE")},
        {QStringLiteral("status"), statusText()},
        {QStringLiteral("position"), position()},
        {QStringLiteral("requestedPosition"), requestedPosition()},
        {QStringLiteral("current"), current()},
        {QStringLiteral("object"), objectText()},
        {QStringLiteral("fault"), fault()},
        {QStringLiteral("cycles"), text("NCY").toDouble()},
    };
}

} // namespace gripperctl
