#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

/// Runs the external flashing program, `romflasher` in the working directory, and tells when it
/// has ended. What the program prints goes to the log. Does not keep a second run from being
/// started while one is under way: ask isUpgrading() first.
class FirmwareUpgradeService : public QObject
{
    Q_OBJECT

public:
    FirmwareUpgradeService();
    /// Ends a flashing program that is still running; upgradeFinished() is not emitted then.
    ~FirmwareUpgradeService() override;

    /// The flashing program's arguments. `baudRate` in baud, `portName` without a directory.
    QStringList createArguments(const QString &firmwareFile, int baudRate,
                                const QString &portName) const;

    /// Starts the flashing program and returns whether it did start, which blocks the thread for at
    /// most a second. When it did not, no upgradeFinished() follows.
    bool startUpgrade(const QString &firmwareFile, int baudRate, const QString &portName);

    /// Whether the flashing program is starting or running.
    bool isUpgrading() const;

    static constexpr char __executableName[] = "romflasher";

signals:
    /// The flashing program has ended; `error` is its exit code, unchanged.
    void upgradeFinished(int error);

private slots:
    void onReadyReadStandardOutput();
    void onReadyReadStandardError();

private:
    QProcess m_process;
};
