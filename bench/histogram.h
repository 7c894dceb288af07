#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// Counts durations in nanoseconds. A bucket is at most 1/64 of its durations wide, so that
/// millions of durations need a fixed amount of memory and a few instructions each.
class Histogram
{
public:
    void add(std::int64_t nanoseconds, std::uint64_t times = 1)
    {
        const auto value = static_cast<std::uint64_t>(nanoseconds < 0 ? 0 : nanoseconds);
        m_counts[bucketOf(value)] += times;
        m_total += times;
        if (value > m_largest)
            m_largest = value;
    }

    /// Durations counted so far.
    std::uint64_t count() const { return m_total; }

    /// The quantile `share` (0 to 1) in microseconds; 0 without durations.
    double quantileUs(double share) const
    {
        const auto wanted = static_cast<std::uint64_t>(share * static_cast<double>(m_total));
        std::uint64_t seen = 0;
        for (std::size_t i = 0; i < m_counts.size(); ++i) {
            seen += m_counts[i];
            if (m_counts[i] > 0 && seen >= wanted)
                return static_cast<double>(middleOf(i)) / nanosecondsPerUs;
        }
        return 0.0;
    }

    double largestUs() const { return static_cast<double>(m_largest) / nanosecondsPerUs; }

private:
    static constexpr double nanosecondsPerUs = 1000.0;
    static constexpr unsigned stepBits = 6;
    static constexpr std::uint64_t steps = std::uint64_t(1) << stepBits;

    static std::size_t bucketOf(std::uint64_t value)
    {
        if (value < steps)
            return static_cast<std::size_t>(value);
        const auto highestBit = 63U - static_cast<unsigned>(__builtin_clzll(value));
        const unsigned shift = highestBit - stepBits;
        return static_cast<std::size_t>((shift + 1) * steps + ((value >> shift) - steps));
    }

    static std::uint64_t middleOf(std::size_t bucket)
    {
        if (bucket < steps)
            return bucket;
        const std::uint64_t shift = bucket / steps - 1;
        const std::uint64_t low = (bucket % steps + steps) << shift;
        return low + (std::uint64_t(1) << shift) / 2;
    }

    std::array<std::uint64_t, (64 - stepBits + 1) * steps> m_counts{};
    std::uint64_t m_total = 0;
    std::uint64_t m_largest = 0;
};
