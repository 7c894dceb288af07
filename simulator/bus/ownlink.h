#pragma once

#include <QString>

namespace sim {

/// The symbolic link under which the line is found. Creates it only where nothing is, and
/// removes it only while it still is what was created.
///
/// The link spells its target in a way of its own, "/dev/pts/./4". A link of that spelling
/// whose target is gone was left by a simulator that was killed, and is replaced; anything else
/// in its place is somebody else's and stays.
class OwnLink
{
public:
    OwnLink() = default;
    OwnLink(const OwnLink &) = delete;
    OwnLink &operator=(const OwnLink &) = delete;
    /// Removes the link.
    ~OwnLink();

    /// The path to create, empty for none. To be called while no link is there.
    void setPath(const QString &path) { m_path = path; }
    const QString &path() const { return m_path; }

    /// Removes what a killed simulator left. To be called before a pty is opened, which might
    /// get the very number that the old link names.
    void removeStale() const;
    /// Links path() to `ptsPath` ("/dev/pts/4"). Throws Failure when it cannot.
    void create(const QString &ptsPath);
    void remove();

private:
    QString m_path;
    QString m_target;
};

} // namespace sim
