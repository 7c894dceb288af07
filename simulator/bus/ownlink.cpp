#include "ownlink.h"

#include "failure.h"

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
/// The target of the link at `path`, exactly as the link contains it. Empty when `path` is not a
/// link.
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

QString creationProblem(const QString &path, int cause)
{
    if (cause == EEXIST) {
        return QStringLiteral("%1 exists and is not a link that a simulator left; remove it or "
                              "choose another path with --link")
            .arg(path);
    }
    return QStringLiteral("cannot create the link %1: %2")
        .arg(path, QString::fromLocal8Bit(std::strerror(cause)));
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

void OwnLink::create(const QString &ptsPath)
{
    if (m_path.isEmpty())
        return;
    const QString target = ownSpelling(ptsPath);
    if (::symlink(QFile::encodeName(target).constData(), QFile::encodeName(m_path).constData()) !=
        0)
        throw Failure{creationProblem(m_path, errno)};
    m_target = target;
}

void OwnLink::remove()
{
    if (!m_target.isEmpty() && linkText(m_path) == m_target)
        ::unlink(QFile::encodeName(m_path).constData());
    m_target.clear();
}

} // namespace sim
