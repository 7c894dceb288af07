#pragma once

#include "kvdevicebase.h"

#include <array>
#include <bitset>

/// The driver's picture of one gripper: the input image, as last read from the device, and the
/// output image, as it is written next. Getters and setters never touch the bus; updateInput(),
/// initOutput(), updateOutput(), the construction and the maintenance reads do, pumping events
/// while they wait. Serves every product family.
class KvPelloGripper : public KvDeviceBase
{
    Q_OBJECT

public:
    /// Sets the link to the firmware's rate, identifies the device and seeds the output image from
    /// it; pumps events for 200 ms and more, for 300 ms and more when the device answers. Check
    /// error() afterwards: an object that ends with any other than NoError is not used. A failure
    /// always ends with InitilizationError; what led to it is told by errorOccurred().
    KvPelloGripper(KvModbusAbstract &modbus, quint16 slaveId, QObject *parent = nullptr);
    ~KvPelloGripper() override;

    /// Whether the firmware version starts with the code of a known product family.
    bool isValidDevice() override;

    /// Reads the input block and the three counters. False when any of these reads failed or when
    /// the input block is the firmware version; the image then keeps what was not read.
    bool updateInput();

    /// Reads the input block and takes activation, go-to and position request over into the output
    /// image, so that the first write does not change what the gripper is doing.
    bool initOutput();

    /// Writes the output block, in the order that an activation needs. The image counts as sent
    /// even when the write fails. Returns whether the device acknowledged. A write that follows a
    /// failed one repeats it: what was set in between is new output again after the success.
    bool updateOutput();

    /// A scan has begun that will put a new object in this one's place. The new object starts with
    /// other values, so from now on every field that a client sets counts, changed or not.
    void expectReplacement() { m_isBeingReplaced = true; }

    /// Takes over what clients have set on `predecessor` and the device has not acknowledged.
    void takeOverUnsent(const KvPelloGripper &predecessor);

    /// Whether the output image differs from what was last sent.
    bool isNewOutput() const { return m_newOutput != 0; }

    /// True once the device is activated and has completed its activation (status 3).
    quint8 getActivateEcho() const;
    quint8 getGripperModeEcho() const { return m_gripperModeEcho; }
    quint8 getGoToEcho() const { return m_goToEcho; }
    quint8 getStatus() const { return m_status; }
    quint8 getVacuumStatus() const { return m_vacuumStatus; }
    quint8 getObjectFlag() const { return m_objectFlag; }
    quint8 getFaultFlag() const { return m_faultFlag; }
    quint8 getPositionRequestEcho() const { return m_positionRequestEcho; }
    quint8 getPosition() const { return m_position; }
    quint8 getMotorCurrent() const { return m_motorCurrent; }
    quint8 getLedBypass() const { return m_output[LedBypass]; }
    quint8 getLedRed() const { return m_output[LedRed]; }
    quint8 getLedBlue() const { return m_output[LedBlue]; }
    quint8 getLedGreen() const { return m_output[LedGreen]; }
    /// The activation asked for and not yet carried out, not the bit last sent.
    quint8 getActivateRequest() const { return m_output[ActivateRequest]; }
    quint8 getGoToRequest() const { return m_output[GoTo]; }
    quint8 getAutoReleaseRequest() const { return m_output[AutoRelease]; }
    quint8 getAutoReleaseDirectionRequest() const { return m_output[AutoReleaseDirection]; }
    quint8 getMaxPeakSupplyCurrent() const { return m_output[MaxPeakSupplyCurrent]; }
    quint8 getPositionRequest() const { return m_output[PositionRequest]; }
    quint8 getSpeedRequest() const { return m_output[SpeedRequest]; }
    quint8 getForceRequest() const { return m_output[ForceRequest]; }

    /// Asks for an activation; always marks new output. A gripper that is active is deactivated
    /// first, which takes a write of its own.
    void setActivateRequest();
    /// Withdraws the activation; always marks new output.
    void clearActivateRequest();

    // Each of these marks new output only when it changes the image.
    void setGripperModeManual() { change(GripperMode, 0); }
    void setGripperModeAutomatic() { change(GripperMode, 1); }
    void setGoToRequest() { change(GoTo, 1); }
    void clearGoToRequest() { change(GoTo, 0); }
    void setAutoReleaseRequest() { change(AutoRelease, 1); }
    void clearAutoReleaseRequest() { change(AutoRelease, 0); }
    void setAutoReleaseDirectionRequest() { change(AutoReleaseDirection, 1); }
    void clearAutoReleaseDirectionRequest() { change(AutoReleaseDirection, 0); }
    void setLedBypass() { change(LedBypass, 1); }
    void clearLedBypass() { change(LedBypass, 0); }
    void setLedRed() { change(LedRed, 1); }
    void clearLedRed() { change(LedRed, 0); }
    void setLedBlue() { change(LedBlue, 1); }
    void clearLedBlue() { change(LedBlue, 0); }
    void setLedGreen() { change(LedGreen, 1); }
    void clearLedGreen() { change(LedGreen, 0); }
    void setMaxPeakSupplyCurrent(quint8 current) { change(MaxPeakSupplyCurrent, current); }
    void setPositionRequest(quint8 position) { change(PositionRequest, position); }
    void setSpeedRequest(quint8 speed) { change(SpeedRequest, speed); }
    void setForceRequest(quint8 force) { change(ForceRequest, force); }

    /// The counters as last read; 0 before.
    quint32 getNumberOfCycles() const { return m_numberOfCycles; }
    quint32 getNumberOfSecondsPumpIsOn() const { return m_numberOfSecondsPumpIsOn; }
    quint32 getNumberOfPumpActivations() const { return m_numberOfPumpActivations; }

    /// Each reads one counter into its cache; false, and the cache as it was, when the read fails.
    /// An answer that may be that to another counter leaves the cache as it was, too. Leaves the
    /// device error alone.
    bool updateCycleNumber();
    bool updateNumberOfSecondsPumpIsOn();
    bool updateNumberOfPumpActivations();

    /// Direct reads; 0 when the read fails.
    quint32 getOdometer();
    quint32 getMicroUniqueCRC();
    quint16 getActivationCountRange();
    quint16 get200NSpeedLimit();

    /// Writes the speed limit at 200 N and reads it back after 50 ms. Returns true when the device
    /// shows another value than `limit`, false when it shows `limit` or the write failed.
    bool set200NSpeedLimit(quint16 limit);

    /// Stores `newId` in the device, checks it, restarts the firmware and from then on addresses
    /// the device there. True when it carries the new id, at once if it did before; otherwise the
    /// object keeps its id, and the device may or may not have stored the new one. Takes 5.9 s and
    /// more and pumps events meanwhile. The range of `newId` is not checked.
    bool updateSlaveId(unsigned char newId);

private:
    /// The fields that clients set, and the activation bit that follows from them.
    enum OutputField {
        LedBypass,
        LedRed,
        LedBlue,
        LedGreen,
        ActivateRequest, ///< Asked for and not yet carried out.
        ActivateOutput,  ///< The bit that the next write sends.
        GripperMode,
        GoTo,
        AutoRelease,
        AutoReleaseDirection,
        MaxPeakSupplyCurrent,
        PositionRequest,
        SpeedRequest,
        ForceRequest,
        outputFieldCount
    };
    using OutputFields = std::bitset<outputFieldCount>;

    bool writeSettings(QVector<quint16> settings, quint8 newId);
    bool showsSlaveId(const QVector<quint16> &settings, quint8 slaveId) const;
    bool identify();
    void decodeInput(const QVector<quint16> &words);
    QVector<quint16> encodeOutput(quint8 activateBit) const;
    quint8 nextActivateBit();
    bool updateCounter(quint16 address, quint32 &counter);
    quint32 readDoubleWord(quint16 address);
    quint16 readWord(quint16 address);
    void store(OutputField field, quint8 value);
    void change(OutputField field, quint8 value);

    // Until the first read nothing looks inactive, and the first poll always writes.
    quint8 m_activateEcho = 1;
    quint8 m_gripperModeEcho = 0;
    quint8 m_goToEcho = 0;
    quint8 m_status = 0;
    quint8 m_vacuumStatus = 0;
    quint8 m_objectFlag = 0;
    quint8 m_faultFlag = 0;
    quint8 m_positionRequestEcho = 0;
    quint8 m_position = 0;
    quint8 m_motorCurrent = 0;
    quint32 m_numberOfCycles = 0;
    quint32 m_numberOfSecondsPumpIsOn = 0;
    quint32 m_numberOfPumpActivations = 0;
    std::array<quint8, outputFieldCount> m_output{};
    quint8 m_newOutput = 1;
    OutputFields m_unsent;            ///< Set, and not acknowledged by the device since.
    OutputFields m_setSinceAttempt;   ///< Set since the first attempt of the latest write.
    bool m_isWriteUnanswered = false; ///< The latest attempt failed: the next one repeats it.
    bool m_isBeingReplaced = false;
};
