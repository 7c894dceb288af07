#pragma once

/// The timing of the requests on one link. A request for N registers waits for its answer for at
/// most timeout + timeoutFactor * N milliseconds, rounded up to a polling step of the master.
class ModbusConstraints
{
public:
    /// `timeout` in milliseconds, `timeoutFactor` in milliseconds per register. `retries` is only
    /// stored for getRetries(): a master makes one attempt.
    ModbusConstraints(int timeout, int timeoutFactor, int retries);

    int getTimeout() const { return m_timeout; }
    int getTimeoutFactor() const { return m_timeoutFactor; }
    int getRetries() const { return m_retries; }

private:
    int m_timeout;
    int m_timeoutFactor;
    int m_retries;
};
