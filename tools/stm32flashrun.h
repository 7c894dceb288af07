#pragma once

#include "firmwarefile.h"
#include "flasheroptions.h"
#include "stm32flashoutput.h"

#include <QCoreApplication>
#include <QProcess>

/// One run of stm32flash, the program that speaks the ROM bootloader's protocol. It does not
/// outlive this process. An object is good for one run.
class Stm32FlashRun
{
public:
    /// Real flashes print something with every block of 256 bytes.
    static constexpr int usualStallLimitMs = 30'000;

    /// `serialMode` is "8e1" or "8n1". stm32flash is killed when it prints nothing for
    /// `stallLimitMs`.
    Stm32FlashRun(const FlasherOptions &options, const QString &serialMode,
                  int stallLimitMs = usualStallLimitMs);

    /// Writes and verifies the image, and starts it when the options want that. Blocks to the end;
    /// prints details when the options want that.
    FlasherOutcome write(const FirmwareFile &image);
    /// Starts the firmware that is in the flash, and writes nothing. Blocks and prints as write().
    FlasherOutcome start();
    /// The cause of a failure, empty when none is known.
    const QString &problem() const { return m_problem; }

    static QStringList writeArguments(const FlasherOptions &options, const QString &serialMode,
                                      const QString &imagePath);
    static QStringList startArguments(const FlasherOptions &options, const QString &serialMode);

private:
    /// Dies with us.
    class Child : public QProcess
    {
    protected:
        void setupChildProcess() override;

    private:
        const qint64 m_parentPid = QCoreApplication::applicationPid();
    };

    FlasherOutcome execute(const QStringList &arguments, bool startsFirmware);
    bool reachesItsEnd();
    void show(const QStringList &lines) const;
    void takeOutput();

    FlasherOptions m_options;
    QString m_serialMode;
    int m_stallLimitMs;
    QString m_problem;
    Stm32FlashOutput m_output;
    Child m_process;
};
