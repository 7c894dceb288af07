#pragma once

#include <QtGlobal>

#include <optional>
#include <string_view>

class GripperList;
class KvPelloGripper;
template <class T>
class QSharedPointer;

/// What one pair of a SET acts on.
struct SetTarget
{
    GripperList &gripperList;
    const QSharedPointer<KvPelloGripper> &gripper; ///< Null unless the variable needs one.
    int &selectedSlaveId;                          ///< The client's own selection.
    quint8 value;
};

/// One variable of the SET table.
struct SetVariable
{
    std::string_view name;
    bool needsGripper; ///< Without a selected gripper the pair counts as unhandled.
    bool mayWait;      ///< The action may wait on the bus, pumping events meanwhile, or block.
    /// Carries the pair out; returns what replaces the reply of the whole request, if anything.
    std::optional<std::string_view> (*apply)(const SetTarget &target);
};

/// The row of that name, null when there is none.
const SetVariable *findSetVariable(std::string_view name);
