#pragma once

#include <QtGlobal>

#include <unistd.h>

/// Owns an open descriptor and closes it.
class FileDescriptor
{
public:
    explicit FileDescriptor(int descriptor)
        : m_descriptor(descriptor)
    {
    }

    ~FileDescriptor() { ::close(m_descriptor); }
    Q_DISABLE_COPY_MOVE(FileDescriptor)

    int get() const { return m_descriptor; }

private:
    int m_descriptor;
};
