#pragma once

#include "connection.h"
#include "options.h"
#include "output.h"

#include <memory>

namespace gripperctl {

/// What a command works with: the command line, the connection, the output.
class Session
{
public:
    Session(const Options &options, Output &output);

    const Options &options() const { return m_options; }
    Output &output() { return m_output; }

    /// Connects at the first call, and catches interruptions from then on.
    Connection &connection();

    /// Another one, which works although this run was interrupted.
    std::unique_ptr<Connection> connectAgain() const;

    /// The id of the gripper that is meant, which the connection addresses from now on: 9, or that
    /// of --gripper. Throws a Failure if it is not there.
    int selectGripper();

    /// The --timeout, or `otherwiseMs` without one.
    int timeoutMs(int otherwiseMs) const;

private:
    Options m_options;
    Output &m_output;
    std::unique_ptr<Connection> m_connection;
};

/// Which of the grippers found is meant; throws as above.
int chooseGripper(const QVector<int> &found, std::optional<int> wanted, const QString &link);

/// "2, 9", or "none".
QString listOfIds(const QVector<int> &ids);

} // namespace gripperctl
