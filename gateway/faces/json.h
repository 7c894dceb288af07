#pragma once

#include "joblist.h"
#include "lease.h"
#include "picture.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace gateway {

/// Members keep their order, so that people can read the answers too.
using Json = nlohmann::ordered_json;

/// Always valid UTF-8.
std::string textOf(const Json &json);

/// A time such as 2024-05-17T09:30:00.125+02:00.
std::string isoTime(std::chrono::system_clock::time_point time);

double secondsBetween(Clock::time_point begin, Clock::time_point end);

/// The viewer of an answer.
struct Viewer
{
    Role role = Role::View;
    std::optional<Clock::time_point> end; ///< of the session; empty for a viewer without one
};

/// All that the faces show, and their forms in JSON. gateway/api/openapi.json describes them.
class View
{
public:
    View(const Picture &picture, const JobList &jobs, const Lease &lease, bool isMuted,
         const gripper::ReadingTime &now)
        : m_picture(picture)
        , m_jobs(jobs)
        , m_lease(lease)
        , m_isMuted(isMuted)
        , m_now(now)
    {
    }

    /// The members that every message has: the two clocks.
    Json times() const;
    /// The whole state without the viewer.
    Json picture() const;
    Json viewer(const Viewer &viewer) const;
    /// The grippers that changed after a version of the picture, and the line.
    Json changesSince(std::uint64_t version) const;
    Json line() const;
    Json gripper(const GripperView &view) const;
    Json event(const Event &event) const;
    Json job(const Job &job) const;
    Json control() const;
    std::string history(int gripper, const History &history, std::chrono::seconds span) const;

    const Picture &pictureOf() const { return m_picture; }
    const JobList &jobs() const { return m_jobs; }
    const Lease &lease() const { return m_lease; }
    const gripper::ReadingTime &now() const { return m_now; }

private:
    Json age(std::optional<Clock::time_point> time) const;
    double clock(Clock::time_point time) const;

    const Picture &m_picture;
    const JobList &m_jobs;
    const Lease &m_lease;
    bool m_isMuted;
    gripper::ReadingTime m_now;
};

} // namespace gateway
