#pragma once

#include "connection.h"
#include "options.h"
#include "output.h"

#include <memory>

namespace gripperctl {

/// Owns the connection of a command, and gives the command its options and its output.
class Session
{
public:
    Session(const Options &options, Output &output);

    const Options &options() const { return m_options; }
    Output &output() { return m_output; }

    /// The first call connects, and catches interruptions from then on.
    Connection &connection();

    /// Makes a second connection, which works after an interruption.
    std::unique_ptr<Connection> connectAgain() const;

    /// Addresses gripper 9, or the one of --gripper, and returns its id. Throws Failure if the
    /// daemon does not list it.
    int selectGripper();

    /// The value of --timeout, or `defaultMs` without this option.
    int timeoutMs(int defaultMs) const;

private:
    Options m_options;
    Output &m_output;
    std::unique_ptr<Connection> m_connection;
};

/// Returns `wanted`, or 9 without it. Throws Failure if it is not in `found`.
int chooseGripper(const QVector<int> &found, std::optional<int> wanted, const QString &link);

/// A text such as "2, 9", or "none".
QString listOfIds(const QVector<int> &ids);

} // namespace gripperctl
