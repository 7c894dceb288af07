#include "firmwareupgradeservice.h"

#include <QDebug>

namespace {

constexpr int startWaitMs = 1000;

} // namespace

FirmwareUpgradeService::FirmwareUpgradeService()
{
    connect(&m_process, QOverload<int, QProcess::ExitStatus>::of(&QProcess::finished), this,
            [this](int exitCode) { emit upgradeFinished(exitCode); });
    connect(&m_process, &QProcess::readyReadStandardOutput, this,
            &FirmwareUpgradeService::onReadyReadStandardOutput);
    connect(&m_process, &QProcess::readyReadStandardError, this,
            &FirmwareUpgradeService::onReadyReadStandardError);
}

FirmwareUpgradeService::~FirmwareUpgradeService()
{
    // The receiver of upgradeFinished() owns this object and is being destroyed, too.
    disconnect(&m_process, nullptr, this, nullptr);
    m_process.kill();
    m_process.waitForFinished();
}

QStringList FirmwareUpgradeService::createArguments(const QString &firmwareFile, int baudRate,
                                                    const QString &portName) const
{
    return {QStringLiteral("-p"), QLatin1String("/dev/") + portName,
            QStringLiteral("-b"), QString::number(baudRate),
            QStringLiteral("-f"), firmwareFile,
            QStringLiteral("-d"), QStringLiteral("-g")};
}

bool FirmwareUpgradeService::startUpgrade(const QString &firmwareFile, int baudRate,
                                          const QString &portName)
{
    const QString program = QLatin1String("./") + QLatin1String(__executableName);
    const QStringList arguments = createArguments(firmwareFile, baudRate, portName);
    m_process.start(program, arguments, QIODevice::ReadWrite);
    qInfo() << "command : " << program << arguments;
    return m_process.waitForStarted(startWaitMs);
}

bool FirmwareUpgradeService::isUpgrading() const
{
    return m_process.state() != QProcess::NotRunning;
}

void FirmwareUpgradeService::onReadyReadStandardOutput()
{
    qInfo() << m_process.readAllStandardOutput();
}

void FirmwareUpgradeService::onReadyReadStandardError()
{
    qInfo() << m_process.readAllStandardError();
}
