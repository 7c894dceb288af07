#pragma once

#include "firmwareupgradeservice.h"
#include "kvmodbuscustom.h"
#include "kvpellogripper.h"
#include "modbusconstraintsfactory.h"
#include "productfamily.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSharedPointer>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <functional>
#include <optional>

/// Owns the serial link and every gripper on it. A timer drives a state machine that discovers
/// grippers, reads each one's inputs and writes its outputs when they changed. Clients read and
/// change the images of the grippers that this list hands out; the loop carries them to the bus.
///
/// While the flashing program runs, the list opens no port and sends nothing. Requests keep their
/// replies, the list stays as it is, and a scan that was asked for follows when the program ends.
///
/// Whatever touches the bus pumps events, so a client's request may run inside it and replace or
/// remove every gripper: after a wait nothing but a shared pointer in hand is certain.
class GripperList : public QObject
{
    Q_OBJECT

public:
    using Gripper = QSharedPointer<KvPelloGripper>;

    /// `constraintsFactory` must outlive the list. Opens no port; the first tick does.
    GripperList(const ModbusConstraintsFactory &constraintsFactory, QObject *parent);
    ~GripperList() override;

    /// Null when no gripper has that id.
    Gripper getGripperFromSlaveId(unsigned char slaveId) const;

    /// The gripper in the list at the id of `gripper`, which a scan may have replaced; `gripper`
    /// itself when there is none.
    Gripper latest(const Gripper &gripper) const;

    /// Ascending.
    QVector<quint8> getDiscoveredSlaveIds() const;

    /// "SCANNING", "RUNNING", "ERR_SCANNING (EIO)" or "ERR_TIMEOUT".
    QByteArray getPrintableState() const;

    QString getModbusName() const;

    /// Suspends polling, or lets it go on.
    void setMuted(bool muted);

    /// Lets the state loop tick at its ordinary interval (true) or as fast as the bus allows
    /// (false). Applies from the next period.
    void setThrottled(bool throttled);

    /// Asks for a scan after the output step of the gripper being polled. Returns at once.
    void requestScan();

    /// Scans in this call, whatever the state loop is doing; pumps events for a second and more.
    void requestScanBlock();

    /// Brings the grippers up to date with what answers on `portName`. Changes nothing when the
    /// port cannot be opened; leaves it open otherwise. A gripper that answers again is a new
    /// object, with the fields that clients have set and the device has not acknowledged. Pumps
    /// events; when another scan has ended meanwhile, that one's result stays.
    void scan(const QString &portName);

    /// Rescans the port in use, or looks for a port with grippers. Pumps events, and blocks the
    /// thread while `fuser` runs.
    void discoverState();

    /// "ttyTool", then every USB serial port that no process holds open. Blocks the thread while
    /// `fuser` runs.
    QStringList getAvailableSerialPorts() const;

    /// Product families, told by the second character of the firmware version.
    bool isPello(const Gripper &gripper) const;
    bool isVarno(const Gripper &gripper) const;
    bool isSorbix(const Gripper &gripper) const;
    bool isZentra(const Gripper &gripper) const;

    /// Moves a gripper to another slave id, on the device and in this list; ticks stay out
    /// meanwhile. Takes 5.9 s and more and pumps events. The id that the gripper already has
    /// succeeds at once and takes the gripper off the list until the next discovery.
    bool updateGripperSlaveId(unsigned char oldId, unsigned char newId);

    /// Whether the gripper's bootloader is that of the microcontroller's ROM.
    bool hasStBootloader(const Gripper &gripper) const;

    /// Whether the gripper's bootloader answers on the port now; needs the link closed. Pumps
    /// events until the line is quiet, then blocks the thread for up to 5.1 s.
    bool isDeviceInBootloaderMode(const Gripper &gripper);

    /// Sends the gripper into its bootloader; true when it answers there, also when the answer to
    /// the reset was lost. Polling is muted afterwards, unless it was there already; ticks stay out
    /// meanwhile. False at once while the flashing program runs. Pumps events, then blocks for up
    /// to 5.1 s, twice when the link is closed.
    bool jumpToBootloader(const Gripper &gripper);

    /// Sends the gripper into its bootloader and starts the flashing program with the firmware of
    /// its family. True once that was tried: how it ended shows when polling resumes. False when a
    /// jump or an upgrade is running, or when there is no bootloader or no firmware for the
    /// gripper; polling then stays muted.
    bool upgradeFirmware(const Gripper &gripper);

    /// Has the gripper sent into its bootloader at the next tick that is not held back.
    void resetToBootloader(const Gripper &gripper);

    /// 1 while the flashing program runs, else 0.
    int getUpgradeStatus() const;

    /// Firmware images, relative to the working directory.
    static constexpr const char *__firmwareGripperA = pelloFamily.firmwareImage;
    static constexpr const char *__firmwareGripperB = varnoFamily.firmwareImage;
    static constexpr const char *__firmwareGripperE = zentraFamily.firmwareImage;
    static constexpr const char *__firmwareGripperF = sorbixFamily.firmwareImage;

    /// The loop gives up the link after so many failures of an access in a row.
    static constexpr int __maxGripperCommunicationRetries = 5;

    /// A scan drops grippers with ids outside of this range and logs nothing.
    static constexpr quint8 __min_slave_id = 1;
    /// Also the id that a new client addresses.
    static constexpr quint8 __max_slave_id = 9;

public slots:
    /// One tick of the state loop. Does nothing while a tick, a blocking scan, a slave id move, a
    /// bootloader jump or the flashing program is running, or while polling is muted.
    void onTimerStateLoopTimeout();

    /// The flashing program has ended, with whatever result: polling continues, with a scan if one
    /// was asked for meanwhile.
    void unmuteOnUpgradeFinished();

private:
    friend class tst_GripperList;

    /// What the next tick does.
    enum class LoopStep : qint32 {
        Discover = 0,   ///< Look for grippers, unless the pause after a failure is still running.
        SelectNext = 1, ///< Take up the next gripper and read it.
        ReadInput = 2,  ///< Read the gripper at the current position.
        WriteOutput = 3 ///< Write it if its outputs changed, or else go on to the next.
    };

    /// What clients are told about the link.
    enum class LinkStatus : qint32 {
        Scanning = 0,      ///< No gripper has been found yet, or a scan was asked for.
        Running = 1,       ///< The last access succeeded.
        ErrorScanning = 2, ///< The link went down, or there was no gripper to poll.
        Timeout = 3        ///< A gripper stopped answering; the link was closed.
    };

    bool isInBootloaderWithoutAnswer(const Gripper &gripper);
    void jumpPendingToBootloader();
    void runStep();
    void discoverTick();
    void selectNextSlaveState();
    void updateInputState();
    void updateOutputState();
    void onAccessFailed();
    void restartDiscovery(LinkStatus status);
    void startPolling();
    void openLink(const QString &portName);
    bool scanUndisturbed(const QString &portName);
    void takeOver(quint8 slaveId, const QVector<Gripper> &found);
    void removeGripper(quint8 slaveId);
    Gripper currentGripper() const;
    static bool succeedsWithinRetries(const std::function<bool()> &access, const char *failureText);

    KvModbusCustom m_modbus;
    QMap<quint8, Gripper> m_grippers;
    /// The slave id of the gripper being polled; none stands for the map's end. An id, because a
    /// scan may replace or remove every entry while a step waits.
    std::optional<quint8> m_currentSlaveId;
    QTimer *m_stateLoopTimer;
    QTimer *m_scanBackOffTimer;
    LoopStep m_loopStep = LoopStep::Discover;
    LinkStatus m_linkStatus = LinkStatus::Scanning;
    const ModbusConstraintsFactory &m_constraintsFactory;
    FirmwareUpgradeService m_upgradeService;
    bool m_busy = false;
    bool m_muted = false;
    bool m_scanRequested = false;
    QList<Gripper> m_pendingBootloader;
    bool m_tickRunning = false;
    bool m_jumpRunning = false;
    /// Counts what spoils a scan that is suspended in its waits: scans that end, upgrades that
    /// begin.
    unsigned int m_scanDisturbances = 0;
    int m_tickIntervalMs;
};
