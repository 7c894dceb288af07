#pragma once

#include "fault.h"

#include <QMap>
#include <QVector>

#include <optional>
#include <random>

namespace sim {

/// The faults that one request meets, each with its value.
using FaultHits = QMap<FaultKind, int>;
/// Shared by all grippers of a line, so that one seed decides a whole run.
using RandomSource = std::mt19937;

/// The faults of one gripper, at most one of each kind.
class FaultPlan
{
public:
    /// `random` must outlive the plan.
    explicit FaultPlan(RandomSource &random);

    /// Adds `fault`, in place of one of the same kind.
    void set(const Fault &fault);
    void clear() { m_faults.clear(); }
    QVector<Fault> faults() const { return m_faults.values().toVector(); }

    /// Decides which faults of the firmware `request` meets, and counts it for those that are
    /// limited.
    FaultHits draw(const QByteArray &request);
    /// Decides whether this occasion meets the fault `kind` of the bootloader, and counts it.
    /// Gives the fault's value when it does.
    std::optional<int> strike(FaultKind kind);
    /// The value of the fault `kind`, if there is one; this is no occasion.
    std::optional<int> valueOf(FaultKind kind) const;
    /// The answer as the faults in `hits` leave it, out of the `answer` without CRC.
    QByteArray mangle(const FaultHits &hits, const QByteArray &request, QByteArray answer);

private:
    bool strikes(const Fault &fault);
    using Faults = QMap<FaultKind, Fault>;
    Faults::iterator countDown(Faults::iterator it, bool isStruck);
    QByteArray randomBytes(int count);

    RandomSource &m_random;
    Faults m_faults;
};

} // namespace sim
