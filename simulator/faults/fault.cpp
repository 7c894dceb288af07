#include "fault.h"

#include "modbuscodes.h"

namespace sim {

namespace {
constexpr int kShortestWithAddress = 6;
}

bool Fault::concerns(const QByteArray &request) const
{
    if (scope == Scope::AnyRequest)
        return true;
    if (request.size() < kShortestWithAddress)
        return false;
    const auto function = static_cast<quint8>(request.at(1));
    if (scope == Scope::Reads)
        return function == kReadHoldingRegisters;
    if (scope == Scope::Writes)
        return function == kWriteMultipleRegisters;
    return wordAt(request, 2) == address;
}

} // namespace sim
