#include "ownlink.h"

#include <QFile>
#include <QRegularExpression>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace sim {

namespace {
/// What the link at `path` says, unchanged; empty when it is no link.
QString linkText(const QString &path)
{
    std::array<char, PATH_MAX> text = {};
    const ssize_t length =
        ::readlink(QFile::encodeName(path).constData(), text.data(), text.size());
    if (length < 0)
        return QString();
    return QFile::decodeName(QByteArray(text.data(), static_cast<int>(length)));
}

bool exists(const QString &target)
{
    struct stat status = {};
    return ::stat(QFile::encodeName(target).constData(), &status) == 0;
}

QString ownSpelling(const QString &ptsPath)
{
    QString target = ptsPath;
    return target.insert(target.lastIndexOf(QLatin1Char('/')), QStringLiteral("/."));
}

bool isOwnSpelling(const QString &target)
{
    static const QRegularExpression pattern(QStringLiteral("^/dev/pts/\\./[0-9]+\\z"));
    return pattern.match(target).hasMatch();
}
} // namespace

OwnLink::~OwnLink()
{
    remove();
}

void OwnLink::removeStale() const
{
    const QString target = linkText(m_path);
    if (isOwnSpelling(target) && !exists(target))
        ::unlink(QFile::encodeName(m_path).constData());
}

bool OwnLink::create(const QString &ptsPath)
{
    if (m_path.isEmpty())
        return true;
    const QString target = ownSpelling(ptsPath);
    if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(m_path).constData()) ==
        0) {
        m_target = target;
        return true;
    }
    const int cause = errno;
    m_error = cause == EEXIST
                  ? QStringLiteral("%1 is there already and is not a link that a simulator left; "
                                   "remove it or choose another path with --link")
                        .arg(m_path)
                  : QStringLiteral("cannot create the link %1: %2")
                        .arg(m_path, QString::fromLocal8Bit(std::strerror(cause)));
    return false;
}

void OwnLink::remove()
{
    if (!m_target.isEmpty() && linkText(m_path) == m_target)
        ::unlink(QFile::encodeName(m_path).constData());
    m_target.clear();
}

} // namespace sim
