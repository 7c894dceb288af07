#pragma once

#include "picture.h"

#include <memory>
#include <string>
#include <vector>

namespace gateway {

/// The picture as metrics, in the text format of Prometheus. It counts in every reading, so that
/// it misses nothing that happens between two scrapes. It does no input or output and reads no
/// clock.
///
/// The number of time series is bounded: only the ids that a scan may find have some, and all
/// labels but the identity of a gripper have few values.
class Metrics
{
public:
    /// `expected` are the ids of the grippers that the line must have.
    Metrics(const Picture &picture, std::vector<int> expected);
    ~Metrics();
    Metrics(const Metrics &) = delete;
    Metrics &operator=(const Metrics &) = delete;

    /// Counts what the latest reading shows. The caller calls it after each Picture::take().
    void observe();

    std::string text(Clock::time_point now) const;

private:
    struct Parts;
    std::unique_ptr<Parts> m_parts;
};

} // namespace gateway
