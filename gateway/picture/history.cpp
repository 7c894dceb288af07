#include "history.h"

#include <algorithm>
#include <optional>

namespace gateway {

namespace {

std::uint8_t byteOf(const std::optional<int> &value)
{
    constexpr int maxByte = 255;
    return static_cast<std::uint8_t>(std::clamp(value.value_or(0), 0, maxByte));
}

} // namespace

void History::add(std::chrono::milliseconds time, const gripper::Image &image)
{
    add({time, true, byteOf(image.position), byteOf(image.requestedPosition),
         byteOf(image.current)});
}

void History::addGap(std::chrono::milliseconds time)
{
    if (m_samples.empty())
        return;
    const std::size_t newest = (m_oldest + m_samples.size() - 1) % m_samples.size();
    if (m_samples[newest].hasValues)
        add({time, false, 0, 0, 0});
}

std::vector<History::Sample> History::since(std::chrono::milliseconds begin) const
{
    std::vector<Sample> samples;
    samples.reserve(m_samples.size());
    for (std::size_t i = 0; i < m_samples.size(); ++i) {
        const Sample &sample = m_samples[(m_oldest + i) % m_samples.size()];
        if (sample.time >= begin)
            samples.push_back(sample);
    }
    return samples;
}

void History::add(const Sample &sample)
{
    m_samples.reserve(capacity);
    if (m_samples.size() < capacity) {
        m_samples.push_back(sample);
        return;
    }
    m_samples[m_oldest] = sample;
    m_oldest = (m_oldest + 1) % capacity;
}

} // namespace gateway
