#pragma once

#include "tablerows.h"

#include <QtGlobal>

#include <optional>
#include <string_view>

class GripperList;
class KvPelloGripper;
template <class T>
class QSharedPointer;

/// The objects that one pair of a SET acts on.
struct SetTarget
{
    GripperList &gripperList;
    const QSharedPointer<KvPelloGripper> &gripper; ///< May be null unless needsGripper.
    int &selectedSlaveId;                          ///< The client's own selection.
    quint8 value;
};

/// One variable of the SET table.
struct SetVariable
{
    std::string_view name;
    bool needsGripper;        ///< If the selected id has no gripper, the pair counts as unhandled.
    bool mayWait;             ///< The action may wait on the bus, which pumps events, or block.
    std::string_view range;   ///< The values that have a meaning.
    std::string_view meaning; ///< One sentence.
    std::string_view refusal; ///< When the reply is "nak"; empty if the reply is always "ack".
    /// Applies the pair. Returns the new reply to the whole request, or nothing if the reply does
    /// not change.
    std::optional<std::string_view> (*apply)(const SetTarget &target);
};

/// The SET table.
TableRows<SetVariable> setVariables();

/// The row with that name, or null.
const SetVariable *findSetVariable(std::string_view name);
