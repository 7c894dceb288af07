#include "session.h"

#include "failure.h"
#include "interruption.h"

namespace gripperctl {

namespace {

// The daemon answers nothing for up to five seconds while it looks for a bootloader.
constexpr int answerTimeoutMs = 10'000;
constexpr int defaultGripper = 9;

} // namespace

Session::Session(const Options &options, Output &output)
    : m_options(options)
    , m_output(output)
{
}

Connection &Session::connection()
{
    if (!m_connection) {
        m_connection = std::make_unique<Connection>(m_options.endpoint,
                                                    Connection::Wait{timeoutMs(answerTimeoutMs)});
        catchInterruptions();
    }
    return *m_connection;
}

std::unique_ptr<Connection> Session::connectAgain() const
{
    return std::make_unique<Connection>(m_options.endpoint,
                                        Connection::Wait{answerTimeoutMs, false});
}

int Session::selectGripper()
{
    const QString link = connection().get(QStringLiteral("DRI"));
    const int id = chooseGripper(connection().grippers(), m_options.whole("gripper"), link);
    if (!connection().select(id)) {
        throw Failure{
            ExitCode::NoGripper,
            QStringLiteral("gripper %1 has just disappeared: see gripperctl status").arg(id)};
    }
    return id;
}

int Session::timeoutMs(int defaultMs) const
{
    return m_options.milliseconds("timeout").value_or(defaultMs);
}

int chooseGripper(const QVector<int> &found, std::optional<int> wanted, const QString &link)
{
    if (found.isEmpty()) {
        throw Failure{ExitCode::NoGripper,
                      QStringLiteral("the daemon has found no gripper (link: %1): are the grippers "
                                     "switched on, and is the line plugged in?")
                          .arg(link)};
    }
    // Another gripper is never a replacement: the wanted one may be missing for a moment only.
    const int id = wanted.value_or(defaultGripper);
    if (found.contains(id))
        return id;
    throw Failure{
        ExitCode::NoGripper,
        QStringLiteral("the daemon does not list gripper %1 (listed: %2): use --gripper ID, or "
                       "look again with gripperctl scan")
            .arg(id)
            .arg(listOfIds(found))};
}

QString listOfIds(const QVector<int> &ids)
{
    QStringList words;
    for (const int id : ids)
        words.append(QString::number(id));
    return words.isEmpty() ? QStringLiteral("none") : words.join(QStringLiteral(", "));
}

} // namespace gripperctl
