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

/// How long a gripper takes for what takes long.
struct GripperTiming
{
    int bootMs = 800;                ///< from the restart command until it answers again
    int activationMs = 1500;         ///< from the activation bit until status 3
    int bootloaderBootMs = 300;      ///< from the restart command until the bootloader answers
    int bootloaderBitsPerSecond = 0; ///< how fast its bytes pass, 0 for as fast as they come
};

/// One gripper on the line: its registers, its misbehaviours, and the program that it runs at
/// present. A mode is a listener of its own, so a new program of the gripper is a new mode.
class SimulatedGripper : public QObject, public LineListener, private ModeHost
{
    Q_OBJECT

public:
    enum class State {
        Firmware,   ///< answers Modbus requests
        Bootloader, ///< answers the bootloader's commands
        Booting,    ///< on the way into one of them, silent
        Dead,       ///< without power, silent
    };

    /// Everything referred to must outlive the gripper. It joins `line` until it is destroyed.
    SimulatedGripper(quint8 slaveId, const GripperIdentity &identity, const GripperTiming &timing,
                     Line &line, Timeline &timeline, RandomSource &random);
    ~SimulatedGripper() override;

    /// The id under which it answers, or answered before the restart that is under way.
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
