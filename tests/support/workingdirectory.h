#pragma once

#include <QString>
#include <QTemporaryDir>

/// An empty folder, which is the working directory of the process while this object exists.
class WorkingDirectory
{
public:
    WorkingDirectory();
    ~WorkingDirectory();

    WorkingDirectory(const WorkingDirectory &) = delete;
    WorkingDirectory &operator=(const WorkingDirectory &) = delete;

    /// The path without symbolic links, as `pwd -P` prints it.
    QString path() const;

    /// Writes an executable shell script into the folder.
    void writeScript(const QString &name, const QByteArray &commands) const;

private:
    QString m_previous;
    QTemporaryDir m_folder;
};
