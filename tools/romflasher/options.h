#pragma once

#include <QString>
#include <QStringList>

namespace flasher {

/// One of the two bootloaders.
struct BootloaderTarget
{
    int baudRate;
    quint32 address; ///< of the first byte of the firmware in the flash
    qint64 capacity; ///< bytes from `address` to the end of the flash
};

/// The contents of the command line.
struct Options
{
    QString helpText; ///< not empty if --help is given; the other members are then unset
    QString device;
    QString imagePath;
    BootloaderTarget target = {};
    bool isVerbose = false;
    bool startsFirmware = false;

    /// `arguments` begins with the program's name. Throws Failure for a wrong command line.
    static Options fromArguments(const QStringList &arguments);
};

} // namespace flasher
