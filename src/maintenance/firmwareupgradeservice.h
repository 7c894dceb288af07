#pragma once

#include <QObject>
#include <QProcess>
#include <QString>
#include <QStringList>

/// Runs the external flashing program, `romflasher` in the working directory, and logs its output.
/// Does not prevent a second start while the program runs: check isUpgrading() first.
class FirmwareUpgradeService : public QObject
{
    Q_OBJECT

public:
    FirmwareUpgradeService();
    /// Kills a flashing program that is still running, without upgradeFinished().
    ~FirmwareUpgradeService() override;

    /// The flashing program's arguments. `baudRate` in baud, `portName` without a directory.
    QStringList createArguments(const QString &firmwareFile, int baudRate,
                                const QString &portName) const;

    /// Starts the flashing program and returns whether it started. Blocks the thread for at most a
    /// second. If the program did not start, no upgradeFinished() follows.
    bool startUpgrade(const QString &firmwareFile, int baudRate, const QString &portName);

    /// Whether the flashing program is starting or running.
    bool isUpgrading() const;

    static constexpr char __executableName[] = "romflasher";

signals:
    /// The flashing program has ended. `error` is its exit code.
    void upgradeFinished(int error);

private slots:
    void onReadyReadStandardOutput();
    void onReadyReadStandardError();

private:
    QProcess m_process;
};
