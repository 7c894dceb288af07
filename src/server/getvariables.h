#pragma once

#include "tablerows.h"

#include <string>
#include <string_view>

class GripperList;
class KvPelloGripper;

/// The objects that a GET reads. `gripper` may be null if the variable needs no gripper.
struct GetSources
{
    GripperList &gripperList;
    KvPelloGripper *gripper;
};

/// Where the value of a GET comes from.
enum class ValueSource {
    Gripper,  ///< The input image, as the state loop last read it.
    Request,  ///< The output image, as clients last set it.
    Identity, ///< The identity cache. While it is empty, the GET reads the device.
    Daemon,   ///< The state of the daemon.
    Constant, ///< The same in every reply.
};

/// One variable of the GET table.
struct GetVariable
{
    std::string_view name; ///< Three characters.
    ValueSource source;
    std::string_view range;   ///< The values as replies show them.
    std::string_view meaning; ///< One sentence.
    void (*appendValue)(const GetSources &from, std::string &reply);

    /// Whether the reply is "?" if the client's selected id has no gripper.
    constexpr bool needsGripper() const
    {
        return source == ValueSource::Gripper || source == ValueSource::Request || mayWait();
    }

    /// Whether appendValue() may wait on the bus, which pumps events.
    constexpr bool mayWait() const { return source == ValueSource::Identity; }
};

/// The GET table.
TableRows<GetVariable> getVariables();

/// The row with that name, or null.
const GetVariable *findGetVariable(std::string_view name);
