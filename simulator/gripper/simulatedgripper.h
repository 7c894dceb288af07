#pragma once

#include "bootloadermode.h"
#include "faultplan.h"
#include "firmwareimage.h"
#include "firmwaremode.h"
#include "flashmemory.h"
#include "gripperidentity.h"
#include "linelistener.h"
#include "modehost.h"
#include "registerbank.h"
#include "silentmode.h"

#include <QObject>

namespace sim {

class Line;
class Timeline;

/// The durations that a gripper needs.
struct GripperTiming
{
    int bootMs = 800;           ///< from the restart command to the first answer
    int activationMs = 1500;    ///< from the activation bit to status 3
    int bootloaderBootMs = 300; ///< from the restart command to the first answer of the bootloader
    int bootloaderBitsPerSecond = 0; ///< the rate that delays its answers; 0 means no delay
};

/// One gripper on the line. It owns its registers, faults and flash, and one mode for each program
/// that it can run. The current mode gets everything that the gripper receives.
class SimulatedGripper : public QObject, public LineListener, private ModeHost
{
    Q_OBJECT

public:
    enum class State {
        Firmware,   ///< answers Modbus requests
        Bootloader, ///< answers the bootloader's commands
        Booting,    ///< between restart and first answer, silent
        Dead,       ///< without power, silent
    };

    /// All references must outlive the gripper. The gripper is a listener of `line` until it
    /// is destroyed.
    SimulatedGripper(quint8 slaveId, const GripperIdentity &identity, const GripperTiming &timing,
                     Line &line, Timeline &timeline, RandomSource &random);
    ~SimulatedGripper() override;

    /// The slave id that the gripper answers to. During a restart, the id before the restart.
    quint8 slaveId() const { return m_firmwareMode.slaveId(); }
    const GripperIdentity &identity() const { return m_identity; }
    RegisterBank &registers() { return m_registers; }
    FaultPlan &faults() { return m_faults; }
    State state() const { return m_state; }
    bool isBooting() const { return m_state == State::Booting; }
    const BootloaderKind &bootloader() const { return m_bootloader; }
    FlashMemory &flash() { return m_flash; }

    void restart() override;
    void restartIntoBootloader() override;
    void cutPower() override;

    void receive(const QByteArray &bytes, int baudRate) override;
    void onSilence() override;

private:
    void send(const QByteArray &bytes, int baudRate, int delayMs) override;
    void sendFromBootloader(const QByteArray &bytes, int baudRate) override;
    void boot(int durationMs, const std::function<void()> &end);
    void stop(State state);
    void startFirmware();
    void startBootloader();

    GripperIdentity m_identity;
    GripperTiming m_timing;
    const BootloaderKind &m_bootloader;
    Line &m_line;
    Timeline &m_timeline;
    RegisterBank m_registers;
    FaultPlan m_faults;
    FlashMemory m_flash;
    FirmwareMode m_firmwareMode;
    BootloaderMode m_bootloaderMode;
    SilentMode m_silentMode;
    LineListener *m_mode;
    State m_state = State::Firmware;
    int m_stops = 0;
};

} // namespace sim
