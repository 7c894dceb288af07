#include "workingdirectory.h"

#include <QDir>
#include <QFile>

WorkingDirectory::WorkingDirectory()
    : m_previous(QDir::currentPath())
{
    if (!QDir::setCurrent(m_folder.path()))
        qFatal("cannot enter the folder %s", qPrintable(m_folder.path()));
}

WorkingDirectory::~WorkingDirectory()
{
    QDir::setCurrent(m_previous);
}

QString WorkingDirectory::path() const
{
    return QDir(m_folder.path()).canonicalPath();
}

void WorkingDirectory::writeScript(const QString &name, const QByteArray &commands) const
{
    QFile file(m_folder.filePath(name));
    if (!file.open(QIODevice::WriteOnly) || file.write("#!/bin/sh\n" + commands + '\n') < 0 ||
        !file.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner))
        qFatal("cannot write the script %s", qPrintable(file.fileName()));
}
