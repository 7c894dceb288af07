#pragma once

#include <QString>

#include <string_view>

/// Logs the pairs of one SET request that nothing handles: for each of the first 100 a line with
/// the whole request, and at the end how many more there were.
class UnhandledPairs
{
public:
    /// `request` must outlive this object.
    explicit UnhandledPairs(std::string_view request);
    ~UnhandledPairs();

    UnhandledPairs(const UnhandledPairs &) = delete;
    UnhandledPairs &operator=(const UnhandledPairs &) = delete;

    /// One more pair is unhandled.
    void log();

private:
    std::string_view m_request;
    QString m_line;
    int m_count = 0;
};
