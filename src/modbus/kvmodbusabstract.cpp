#include "kvmodbusabstract.h"

#include <QMetaEnum>

namespace {

constexpr int initialTimeoutMs = 20;
constexpr int initialTimeoutFactorMs = 10;
constexpr int initialRetries = 2;

} // namespace

KvModbusAbstract::KvModbusAbstract(QObject *parent)
    : QObject(parent)
    , m_constraints(initialTimeoutMs, initialTimeoutFactorMs, initialRetries)
{
}

KvModbusAbstract::~KvModbusAbstract() = default;

QString KvModbusAbstract::errorString() const
{
    return QString::fromLatin1(QMetaEnum::fromType<KvModbusError>().valueToKey(m_error));
}

void KvModbusAbstract::clearError()
{
    m_error = NoError;
}

void KvModbusAbstract::setConstraints(const ModbusConstraints &constraints)
{
    m_constraints = constraints;
}

void KvModbusAbstract::setError(KvModbusError error)
{
    m_error = error;
    emit errorOccurred(error);
}

void KvModbusAbstract::onModbusStateChanged(QModbusDevice::State state)
{
    switch (state) {
    case QModbusDevice::UnconnectedState:
        emit disconnected();
        return;
    case QModbusDevice::ConnectedState:
        emit connected();
        return;
    case QModbusDevice::ConnectingState:
    case QModbusDevice::ClosingState:
        return;
    }
}
