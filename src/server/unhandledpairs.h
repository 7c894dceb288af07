#pragma once

#include <QString>

#include <string_view>

/// Logs the pairs of one SET request that no handler accepts. Logs a line for each of the first
/// 100 pairs, with the whole request, cut after 1,000 characters. The destructor logs the number of
/// further pairs, if any.
class UnhandledPairs
{
public:
    /// `request` must outlive this object.
    explicit UnhandledPairs(std::string_view request);
    ~UnhandledPairs();

    UnhandledPairs(const UnhandledPairs &) = delete;
    UnhandledPairs &operator=(const UnhandledPairs &) = delete;

    /// Logs one more unhandled pair.
    void log();

private:
    std::string_view m_request;
    QString m_line;
    int m_count = 0;
};
