#pragma once

#include <QString>
#include <QStringList>

namespace flasher {

/// One of the two bootloaders: the rate at which it listens and where its firmware goes.
struct BootloaderTarget
{
    int baudRate;
    quint32 address; ///< first byte of the firmware in the flash
    qint64 capacity; ///< bytes from there to the end of the flash
};

/// What the command line asks for.
struct Options
{
    enum class Outcome {
        Run,     ///< go on with these options
        Explain, ///< print `text` on standard output and end well
        Refuse,  ///< print `text` on standard error and end as CannotBegin
    };

    Outcome outcome = Outcome::Run;
    QString text;
    QString device;
    QString imagePath;
    BootloaderTarget target = {};
    bool isVerbose = false;
    bool startsFirmware = false;

    /// `arguments` with the program's name in front.
    static Options fromArguments(const QStringList &arguments);
};

} // namespace flasher
