#pragma once

#include "fault.h"

#include <QMap>
#include <QVector>

#include <optional>
#include <random>

namespace sim {

/// The faults that strike one request, each with its value.
using FaultHits = QMap<FaultKind, int>;
/// All grippers of a line share one source, so one seed determines a whole run.
using RandomSource = std::mt19937;

/// The faults of one gripper, at most one of each kind.
class FaultPlan
{
public:
    /// `random` must outlive the plan.
    explicit FaultPlan(RandomSource &random);

    /// Adds `fault`. It replaces a fault of the same kind.
    void set(const Fault &fault);
    void clear() { m_faults.clear(); }
    QVector<Fault> faults() const { return m_faults.values().toVector(); }

    /// Decides which faults of the firmware strike `request`. A fault with a limited number of
    /// strikes counts this strike.
    FaultHits draw(const QByteArray &request);
    /// Decides whether the fault `kind` of the bootloader strikes now, and counts the strike.
    /// Returns the value of the fault if it strikes.
    std::optional<int> strike(FaultKind kind);
    /// The value of the fault `kind`, if it is set. Decides and counts nothing.
    std::optional<int> valueOf(FaultKind kind) const;
    /// Makes the frame to send from `answer`, which has no CRC yet: adds the CRC and applies
    /// `hits`.
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
