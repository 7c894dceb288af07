#include "movewatch.h"

#include "grip.h"

#include <gripper/gripper.h>

namespace gateway {

namespace {

using gripper::Image;
using gripper::Object;

bool has(const Image &image, Object object)
{
    return image.object == static_cast<int>(object);
}

bool isActive(const Image &image)
{
    return image.status == static_cast<int>(gripper::Status::Active);
}

bool begins(const Image &before, const Image &next)
{
    if (!isActive(next) || next.goTo != true)
        return false;
    // A request may wait for the end of the activation.
    return !haveSameRequest(before, next) || (!isActive(before) && has(next, Object::Moving));
}

/// Empty while the movement continues.
std::optional<MoveResult> resultOf(const Image &image)
{
    if (!isActive(image))
        return MoveResult::Failed;
    if (image.goTo != true)
        return MoveResult::Stopped;
    if (has(image, Object::Moving) || has(image, Object::NoGoTo))
        return std::nullopt;
    if (holdsObject(image))
        return MoveResult::Object;
    return has(image, Object::Met) ? MoveResult::Leak : MoveResult::Arrived;
}

} // namespace

std::vector<EndedMove> MoveWatch::take(const Image &image)
{
    std::vector<EndedMove> ended;
    if (m_last && begins(*m_last, image)) {
        if (m_begin)
            ended.push_back(end(MoveResult::Replaced));
        m_begin = image.time.monotonic;
    }
    m_last = image;
    if (m_begin) {
        if (const auto result = resultOf(image))
            ended.push_back(end(*result));
    }
    return ended;
}

std::vector<EndedMove> MoveWatch::interrupt()
{
    std::vector<EndedMove> ended;
    if (m_begin)
        ended.push_back(end(MoveResult::Unknown));
    m_last.reset();
    return ended;
}

EndedMove MoveWatch::end(MoveResult result)
{
    const EndedMove ended{result, m_last->time.monotonic - *m_begin};
    m_begin.reset();
    return ended;
}

} // namespace gateway
