#include "logcapture.h"

namespace {

QStringList s_infos;
QStringList s_warnings;

void keep(QtMsgType type, const QMessageLogContext & /*context*/, const QString &message)
{
    if (type == QtInfoMsg)
        s_infos.append(message);
    else if (type != QtDebugMsg)
        s_warnings.append(message);
}

} // namespace

LogCapture::LogCapture()
    : m_previous(qInstallMessageHandler(keep))
{
    clear();
}

LogCapture::~LogCapture()
{
    qInstallMessageHandler(m_previous);
}

void LogCapture::clear()
{
    s_infos.clear();
    s_warnings.clear();
}

QStringList LogCapture::infos() const
{
    return s_infos;
}

QStringList LogCapture::infosThatStartWith(const QString &start) const
{
    QStringList found;
    for (const QString &message : qAsConst(s_infos)) {
        if (message.startsWith(start))
            found.append(message);
    }
    return found;
}

QStringList LogCapture::warnings() const
{
    return s_warnings;
}
