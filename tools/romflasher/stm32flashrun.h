#pragma once

#include "firmwarefile.h"
#include "options.h"
#include "stm32flashoutput.h"

#include <QCoreApplication>
#include <QProcess>

namespace flasher {

/// Owns one run of stm32flash, the program that speaks the protocol of the ROM bootloader. The
/// child never outlives this process. Use an object for one run only.
class Stm32FlashRun
{
public:
    /// A real stm32flash prints progress with every block of 256 bytes.
    static constexpr int usualStallLimitMs = 30'000;

    /// `serialMode` is "8e1" or "8n1". A child that prints nothing for `stallLimitMs` is killed.
    Stm32FlashRun(const Options &options, const QString &serialMode,
                  int stallLimitMs = usualStallLimitMs);

    /// Writes and verifies the image, and starts it if the options say so. Blocks until the child
    /// ends, and prints details if the options say so. Throws Failure.
    void write(const FirmwareFile &image);
    /// Starts the present firmware and writes nothing. Blocks, prints and throws as write() does.
    void start();

    static QStringList writeArguments(const Options &options, const QString &serialMode,
                                      const QString &imagePath);
    static QStringList startArguments(const Options &options, const QString &serialMode);

private:
    /// A child that dies with this process.
    class Child : public QProcess
    {
    protected:
        void setupChildProcess() override;

    private:
        const qint64 m_parentPid = QCoreApplication::applicationPid();
    };

    void execute(const QStringList &arguments, bool startsFirmware);
    void waitForEnd();
    void show(const QStringList &lines) const;
    void takeOutput();

    Options m_options;
    QString m_serialMode;
    int m_stallLimitMs;
    Stm32FlashOutput m_output;
    Child m_process;
};

} // namespace flasher
