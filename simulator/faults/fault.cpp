#include "fault.h"

#include "modbuscodes.h"

namespace sim {

namespace {
constexpr int minLengthWithAddress = 6;
}

bool Fault::concerns(const QByteArray &request) const
{
    if (scope == Scope::AnyRequest)
        return true;
    if (request.size() < minLengthWithAddress)
        return false;
    const auto function = static_cast<quint8>(request.at(1));
    if (scope == Scope::Reads)
        return function == readHoldingRegisters;
    if (scope == Scope::Writes)
        return function == writeMultipleRegisters;
    return wordAt(request, 2) == address;
}

} // namespace sim
