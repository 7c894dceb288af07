#pragma once

#include "firmwareupgradeservice.h"
#include "kvmodbuscustom.h"
#include "kvpellogripper.h"
#include "modbusconstraintsfactory.h"
#include "productfamily.h"

#include <QByteArray>
#include <QDeadlineTimer>
#include <QList>
#include <QMap>
#include <QObject>
#include <QSharedPointer>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <functional>
#include <optional>

/// Owns the serial link and every gripper on it. A timer drives a state machine, the state loop. It
/// discovers grippers, reads their inputs and writes their outputs if they changed. Clients read
/// and change the images of the grippers; only the list uses the bus.
///
/// While the flashing program runs, the list opens no port and sends nothing, and it keeps its
/// grippers. If a client requests a scan meanwhile, the scan follows when the program ends.
///
/// Every function that uses the bus pumps events. A client's request may then replace or remove
/// every gripper. After a wait, use only the shared pointers that you hold.
class GripperList : public QObject
{
    Q_OBJECT

public:
    using Gripper = QSharedPointer<KvPelloGripper>;

    /// `constraintsFactory` must outlive the list. The first tick opens the port.
    GripperList(const ModbusConstraintsFactory &constraintsFactory, QObject *parent);
    ~GripperList() override;

    /// Null if no gripper has this id.
    Gripper getGripperFromSlaveId(unsigned char slaveId) const;

    /// The gripper that the list has now at the id of `gripper`: a scan may have replaced the
    /// object. Returns `gripper` itself if the list has no gripper there.
    Gripper latest(const Gripper &gripper) const;

    /// In ascending order.
    QVector<quint8> getDiscoveredSlaveIds() const;

    /// "SCANNING", "RUNNING", "ERR_SCANNING (EIO)" or "ERR_TIMEOUT".
    QByteArray getPrintableState() const;

    QString getModbusName() const;

    /// Suspends polling (true) or continues it (false).
    void setMuted(bool muted);

    /// Lets the state loop tick at its ordinary interval (true) or as fast as the bus allows
    /// (false). Applies from the next period.
    void setThrottled(bool throttled);

    /// Requests a scan before the loop selects its next gripper. Returns at once.
    void requestScan();

    /// Scans now, in any state of the loop. Pumps events.
    void requestScanBlock();

    /// Replaces the grippers by those that answer on `portName`. Opens the port and leaves it open.
    /// If the port does not open, the list keeps its grippers. A gripper that answers again is a
    /// new object with the fields that clients have set and the device has not acknowledged. Pumps
    /// events. If another scan ends meanwhile, the result of that scan stays. If a bootloader jump
    /// begins meanwhile, the list keeps its grippers.
    void scan(const QString &portName);

    /// Rescans the port in use, or looks for a port with grippers. Pumps events, and blocks the
    /// thread while `fuser` runs.
    void discoverState();

    /// "ttyTool", then every USB serial port that no process has open. Blocks the thread while
    /// `fuser` runs.
    QStringList getAvailableSerialPorts() const;

    /// Whether the gripper belongs to the family, by the second character of its firmware version
    /// only.
    bool isPello(const Gripper &gripper) const;
    bool isVarno(const Gripper &gripper) const;
    bool isSorbix(const Gripper &gripper) const;
    bool isZentra(const Gripper &gripper) const;

    /// Moves a gripper to another slave id, on the device and in this list. Returns whether it did.
    /// Pumps events for as long as KvPelloGripper::updateSlaveId(); no tick runs meanwhile. If both
    /// ids are the same, returns true after one read, and the gripper leaves the list until the
    /// next discovery.
    bool updateGripperSlaveId(unsigned char oldId, unsigned char newId);

    /// Whether the gripper has romBootloader.
    bool hasStBootloader(const Gripper &gripper) const;

    /// Whether the gripper's bootloader answers now. The link must be closed. Pumps events until
    /// the line is quiet, then blocks the thread like KvDeviceBase::detectBootloader().
    bool isDeviceInBootloaderMode(const Gripper &gripper);

    /// Sends the gripper into its bootloader. Returns whether the bootloader answers, even if the
    /// answer to the reset was lost. Mutes polling, also after a failure, unless the gripper was
    /// already in its bootloader. No tick runs meanwhile. Returns false at once while the flashing
    /// program runs. Pumps events, then blocks the thread like KvDeviceBase::detectBootloader(),
    /// twice if the link is closed.
    bool jumpToBootloader(const Gripper &gripper);

    /// Whether a bootloader jump is running. The line must stay quiet until the jump has ended.
    bool isJumpRunning() const { return m_jumpRunning; }

    /// Sends the gripper into its bootloader and starts the flashing program with the firmware of
    /// its family. Returns true even if the program does not start. Returns false at once while a
    /// jump or an upgrade is running. Also returns false if no bootloader answers or if there is no
    /// firmware for the gripper: polling then stays as jumpToBootloader() left it.
    bool upgradeFirmware(const Gripper &gripper);

    /// Sends the gripper into its bootloader at the next tick that runs.
    void resetToBootloader(const Gripper &gripper);

    /// 1 while the flashing program runs, else 0.
    int getUpgradeStatus() const;

    /// Firmware images, relative to the working directory.
    static constexpr const char *__firmwareGripperA = pelloFamily.firmwareImage;
    static constexpr const char *__firmwareGripperB = varnoFamily.firmwareImage;
    static constexpr const char *__firmwareGripperE = zentraFamily.firmwareImage;
    static constexpr const char *__firmwareGripperF = sorbixFamily.firmwareImage;

    /// The loop closes the link after this many failures of an access in a row.
    static constexpr int __maxGripperCommunicationRetries = 5;

    /// A scan drops grippers with ids outside of this range and logs nothing.
    static constexpr quint8 __min_slave_id = 1;
    /// Also the id that a new client addresses.
    static constexpr quint8 __max_slave_id = 9;

public slots:
    /// One tick of the state loop. Does nothing while polling is muted, and while a tick, a
    /// blocking scan, a slave id move, a bootloader jump or the flashing program is running.
    void onTimerStateLoopTimeout();

    /// Call it when the flashing program has ended. Continues polling, and scans first if a client
    /// has requested a scan meanwhile.
    void unmuteOnUpgradeFinished();

private:
    friend class tst_GripperList;

    /// The work of the next tick.
    enum class LoopStep : qint32 {
        Discover = 0,   ///< Look for grippers, unless the pause after a failed discovery runs.
        SelectNext = 1, ///< Select the next gripper and read it.
        ReadInput = 2,  ///< Read the current gripper.
        WriteOutput = 3 ///< Write the current gripper if its outputs changed, else read the next.
    };

    /// The state of the link that clients see. The client libraries treat values as stale
    /// while its text is not RUNNING.
    enum class LinkStatus : qint32 {
        Scanning = 0,      ///< No gripper has been found yet, or a client has requested a scan.
        Running = 1,       ///< The last access succeeded.
        ErrorScanning = 2, ///< The link went down, or the current gripper left the list.
        Timeout = 3        ///< A gripper gave no answer, so the loop closed the link.
    };

    /// A gripper that left the list, and how long its unacknowledged fields are still valid.
    struct Predecessor
    {
        Gripper gripper;
        QDeadlineTimer lifetime;
    };

    bool isInBootloaderAfterLostAnswer(const Gripper &gripper);
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
    void updateEntry(quint8 slaveId, const QVector<Gripper> &found);
    void removeGripper(quint8 slaveId);
    void expectReplacements();
    void keepPredecessor(quint8 slaveId, const Gripper &gripper);
    Gripper currentGripper() const;
    static bool succeedsWithinRetries(const std::function<bool()> &access, const char *failureText);

    KvModbusCustom m_modbus;
    QMap<quint8, Gripper> m_grippers;
    /// Grippers that left the list. A scan that finds them again soon copies the fields that
    /// clients have set and the device has not acknowledged.
    QMap<quint8, Predecessor> m_predecessors;
    /// The slave id of the gripper that is polled now. Not an iterator, because a scan may replace
    /// or remove every entry while a step waits.
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
    /// Counts the events that make the result of a waiting scan invalid: another scan has ended, or
    /// a bootloader jump has begun.
    unsigned int m_scanDisturbances = 0;
    int m_tickIntervalMs;
};
