#pragma once

#include "firmwarefile.h"
#include "flasheroptions.h"
#include "stm32flashoutput.h"

#include <QCoreApplication>
#include <QProcess>

/// One run of stm32flash, the program that speaks the ROM bootloader's protocol. It does not
/// outlive this process.
class Stm32FlashRun
{
public:
    /// `serialMode` is "8e1" or "8n1".
    Stm32FlashRun(const FlasherOptions &options, const QString &serialMode,
                  const FirmwareFile &image);

    /// Runs it to its end, blocking; prints what it tells when the options want that.
    FlasherOutcome execute();
    /// What went wrong, empty for nothing known.
    const QString &problem() const { return m_problem; }

    static QStringList arguments(const FlasherOptions &options, const QString &serialMode,
                                 const QString &imagePath);

private:
    /// Dies with us.
    class Child : public QProcess
    {
    protected:
        void setupChildProcess() override;

    private:
        const qint64 m_parentPid = QCoreApplication::applicationPid();
    };

    void show(const QStringList &lines) const;
    void takeOutput();

    FlasherOptions m_options;
    QString m_serialMode;
    QString m_imagePath;
    QString m_problem;
    Stm32FlashOutput m_output;
    Child m_process;
};
