#pragma once

#include <QString>

namespace sim {

/// Owns the symbolic link to the pty. It creates the link only at a free path. It removes the link
/// only if the link still has the target that it was created with.
///
/// The target has an unusual spelling, "/dev/pts/./4", which marks the links of this program. If
/// the target of such a link does not exist, a killed simulator has left the link, and a new link
/// may replace it.
class OwnLink
{
public:
    OwnLink() = default;
    OwnLink(const OwnLink &) = delete;
    OwnLink &operator=(const OwnLink &) = delete;
    /// Removes the link.
    ~OwnLink();

    /// Sets the path of the link; empty means no link. Must not be called while the link exists.
    void setPath(const QString &path) { m_path = path; }
    const QString &path() const { return m_path; }

    /// Removes the link that a killed simulator left. Must be called before the pty is opened: a
    /// new pty can get the number in the old link, which then looks like a link in use.
    void removeStale() const;
    /// Makes path() a link to `ptsPath`, such as "/dev/pts/4". Throws Failure when it cannot.
    void create(const QString &ptsPath);
    void remove();

private:
    QString m_path;
    QString m_target;
};

} // namespace sim
