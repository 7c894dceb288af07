#pragma once

#include <gripper/image.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace gateway {

/// The samples of one gripper over ten minutes. Its memory does not grow: the newest sample
/// replaces the oldest.
class History
{
public:
    static constexpr std::size_t capacity = 12000; ///< ten minutes at 20 samples a second

    struct Sample
    {
        std::chrono::milliseconds time; ///< since the start of the gateway
        bool hasValues;                 ///< false: from this time on there are no values
        std::uint8_t position;
        std::uint8_t request;
        std::uint8_t current;
    };

    void add(std::chrono::milliseconds time, const gripper::Image &image);
    /// Marks the end of the values, once.
    void addGap(std::chrono::milliseconds time);

    /// The samples from `begin` on, in ascending order of time.
    std::vector<Sample> since(std::chrono::milliseconds begin) const;

private:
    void add(const Sample &sample);

    std::vector<Sample> m_samples;
    std::size_t m_oldest = 0;
};

} // namespace gateway
