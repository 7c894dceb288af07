#include "faultplan.h"

#include "crc16.h"
#include "modbuscodes.h"

namespace sim {

namespace {
constexpr unsigned kHundred = 100;

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
        Fault &fault = it.value();
        if (strikes(fault, request)) {
            hits.insert(fault.kind, fault.value);
            if (fault.remaining != Fault::__unlimited)
                --fault.remaining;
        }
        it = fault.remaining == 0 ? m_faults.erase(it) : std::next(it);
    }
    return hits;
}

bool FaultPlan::strikes(const Fault &fault, const QByteArray &request)
{
    if (!fault.concerns(request))
        return false;
    return m_random() % kHundred < static_cast<unsigned>(fault.sharePercent);
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
