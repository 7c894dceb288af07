#include "lease.h"

#include "secrets.h"

namespace gateway {

namespace {

constexpr std::size_t keyLength = 26; // 130 bits

} // namespace

bool Lease::expire(Time now)
{
    if (!m_holder || m_holder->end > now)
        return false;
    m_holder.reset();
    return true;
}

Lease::Taken Lease::take(const Claimant &claimant, bool takeOver, const gripper::ReadingTime &now)
{
    const bool isHeld = m_holder.has_value();
    if (isHeld && !takeOver)
        return Taken::No;
    m_holder =
        Holder{++m_lastNumber, randomText(keyLength), claimant, now, now.monotonic + lifetime};
    return isHeld ? Taken::FromAnother : Taken::Free;
}

bool Lease::holds(const std::string &key, std::uint64_t session) const
{
    return m_holder && m_holder->claimant.session == session &&
           digestOf(m_holder->key) == digestOf(key);
}

void Lease::renew(Time now)
{
    m_holder->end = now + lifetime;
}

} // namespace gateway
