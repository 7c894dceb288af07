#include "gripperview.h"

#include "text.h"

#include <algorithm>
#include <iterator>

namespace gripperctl {

namespace {

struct FamilyRow
{
    const char *name;
    char letter; ///< the second character of the firmware version
    bool isVacuum;
};

constexpr FamilyRow families[] = {
    {"Pello", 'A', false},
    {"Varno", 'B', false},
    {"Zentra", 'E', true},
    {"Sorbix", 'F', true},
};

/// Null for a version of no known family.
const FamilyRow *findFamily(const gripper::Image &image)
{
    const std::string version = image.firmware.value_or("");
    const auto *row =
        std::find_if(std::begin(families), std::end(families), [&](const FamilyRow &known) {
            return version.size() > 1 && version[1] == known.letter;
        });
    return row == std::end(families) ? nullptr : row;
}

} // namespace

std::string familyOf(const gripper::Image &image)
{
    const FamilyRow *row = findFamily(image);
    return row == nullptr ? "" : row->name;
}

bool isVacuum(const gripper::Image &image)
{
    const FamilyRow *row = findFamily(image);
    return row != nullptr && row->isVacuum;
}

bool hasStatus(const gripper::Image &image, gripper::Status status)
{
    return image.status == static_cast<int>(status);
}

void refuseFaulty(const gripper::Image &image)
{
    if (image.fault.value_or(0) != 0) {
        throw Failure(ExitCode::Refused,
                      concat("gripper ", image.id, " has fault ", *image.fault,
                             ": see its manual; gripperctl activate --again clears the faults that "
                             "can be cleared"));
    }
}

std::string statusText(const gripper::Image &image)
{
    if (!image.status)
        return "?";
    switch (static_cast<gripper::Status>(*image.status)) {
    case gripper::Status::Inactive:
        return "inactive";
    case gripper::Status::Activating:
        return "activating";
    case gripper::Status::Releasing:
        return "released";
    case gripper::Status::Active:
        return "active";
    }
    return numberText(image.status);
}

std::string objectText(const gripper::Image &image)
{
    if (!image.object)
        return "?";
    switch (static_cast<gripper::Object>(*image.object)) {
    case gripper::Object::NoGoTo:
        return "-";
    case gripper::Object::Moving:
        return "moving";
    case gripper::Object::Met:
        return isVacuum(image) ? "leak" : "object";
    case gripper::Object::Reached:
        return "reached";
    }
    return numberText(image.object);
}

std::string faultText(const gripper::Image &image)
{
    const std::string text = numberText(image.fault);
    return image.fault && text.size() < 2 ? "0" + text : text;
}

Json jsonOf(const gripper::Image &image)
{
    return {{"id", image.id},
            {"family", familyOf(image)},
            {"firmware", jsonOf(image.firmware)},
            {"serialNumber", jsonOf(image.serialNumber)},
            {"year", jsonOf(image.productionYear)},
            {"status", statusText(image)},
            {"position", jsonOf(image.position)},
            {"requestedPosition", jsonOf(image.requestedPosition)},
            {"current", jsonOf(image.current)},
            {"object", objectText(image)},
            {"fault", jsonOf(image.fault)},
            {"cycles", jsonOf(image.cycles)}};
}

} // namespace gripperctl
