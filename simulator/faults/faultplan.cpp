#include "faultplan.h"

#include "crc16.h"
#include "modbuscodes.h"

namespace sim {

namespace {
constexpr unsigned wholePercent = 100;

void invertLastByte(QByteArray *frame)
{
    const int last = frame->size() - 1;
    (*frame)[last] = static_cast<char>(~frame->at(last));
}

void overwrite(QByteArray *answer, int offset, const FaultHits &hits, FaultKind kind)
{
    if (hits.contains(kind))
        (*answer)[offset] = static_cast<char>(hits.value(kind));
}
} // namespace

FaultPlan::FaultPlan(RandomSource &random)
    : m_random(random)
{
}

void FaultPlan::set(const Fault &fault)
{
    m_faults.insert(fault.kind, fault);
}

FaultHits FaultPlan::draw(const QByteArray &request)
{
    FaultHits hits;
    for (auto it = m_faults.begin(); it != m_faults.end();) {
        const Fault &fault = it.value();
        const bool isStruck =
            !isOfBootloader(fault.kind) && fault.concerns(request) && strikes(fault);
        if (isStruck)
            hits.insert(fault.kind, fault.value);
        it = countDown(it, isStruck);
    }
    return hits;
}

std::optional<int> FaultPlan::strike(FaultKind kind)
{
    const auto it = m_faults.find(kind);
    if (it == m_faults.end() || !strikes(it.value()))
        return std::nullopt;
    const int value = it.value().value;
    countDown(it, true);
    return value;
}

std::optional<int> FaultPlan::valueOf(FaultKind kind) const
{
    const auto it = m_faults.find(kind);
    return it == m_faults.end() ? std::nullopt : std::optional<int>(it.value().value);
}

/// Removes the fault at `it` when it has struck for the last time. Returns the next fault.
FaultPlan::Faults::iterator FaultPlan::countDown(Faults::iterator it, bool isStruck)
{
    if (isStruck && it.value().remaining != Fault::unlimited)
        --it.value().remaining;
    return it.value().remaining == 0 ? m_faults.erase(it) : std::next(it);
}

bool FaultPlan::strikes(const Fault &fault)
{
    return m_random() % wholePercent < static_cast<unsigned>(fault.sharePercent);
}

QByteArray FaultPlan::mangle(const FaultHits &hits, const QByteArray &request, QByteArray answer)
{
    overwrite(&answer, 0, hits, FaultKind::WrongId);
    overwrite(&answer, 1, hits, FaultKind::WrongFunction);
    QByteArray frame = withCrc(answer);
    if (hits.contains(FaultKind::BadCrc))
        invertLastByte(&frame);
    frame.chop(hits.value(FaultKind::Truncated, 0));
    frame.append(randomBytes(hits.value(FaultKind::Trailing, 0)));
    frame.prepend(randomBytes(hits.value(FaultKind::Noise, 0)));
    if (hits.contains(FaultKind::Echo))
        frame.prepend(request);
    return frame;
}

QByteArray FaultPlan::randomBytes(int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i)
        bytes.append(static_cast<char>(m_random() & 0xFFU));
    return bytes;
}

} // namespace sim
