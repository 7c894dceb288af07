#pragma once

#include "role.h"

#include <gripper/image.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace gateway {

/// The session that asks for the lease.
struct Claimant
{
    std::uint64_t session = 0;
    Role role = Role::View;
    std::string peer;
};

/// The one lease for commands. It belongs to one page of one session, which knows its key. It ends
/// 5 s after its last renewal.
class Lease
{
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds lifetime{5};

    struct Holder
    {
        std::uint64_t number = 0; ///< counts the leases
        std::string key;
        Claimant claimant;
        gripper::ReadingTime since;
        Time end;
    };

    enum class Taken {
        No,         ///< another page has it
        Free,       ///< it was free
        FromAnother ///< taken over
    };

    /// Ends the lease if its time is over. Returns whether it has ended now.
    bool expire(Time now);

    Taken take(const Claimant &claimant, bool takeOver, const gripper::ReadingTime &now);
    /// Returns whether the key is that of the present lease and of this session.
    bool holds(const std::string &key, std::uint64_t session) const;
    /// Call only if the key holds it.
    void renew(Time now);
    void end() { m_holder.reset(); }

    const std::optional<Holder> &holder() const { return m_holder; }

private:
    std::optional<Holder> m_holder;
    std::uint64_t m_lastNumber = 0;
};

} // namespace gateway
