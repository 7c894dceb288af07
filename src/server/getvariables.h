#pragma once

#include <string>
#include <string_view>

class GripperList;
class KvPelloGripper;

/// What a GET takes its value from. `gripper` is null unless the variable needs one.
struct GetSources
{
    GripperList &gripperList;
    KvPelloGripper *gripper;
};

/// One variable of the GET table.
struct GetVariable
{
    std::string_view name;
    bool needsGripper; ///< Without a selected gripper the answer is "?".
    bool mayWait;      ///< Reading the value may ask the device, pumping events meanwhile.
    void (*appendValue)(const GetSources &from, std::string &reply);
};

/// The row of that name, null when there is none.
const GetVariable *findGetVariable(std::string_view name);
