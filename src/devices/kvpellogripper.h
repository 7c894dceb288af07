#pragma once

#include "kvdevicebase.h"

#include <array>
#include <bitset>

/// A gripper of any product family. Holds the input image, as last read from the device, and the
/// output image for the next write. The getters and setters of the images never use the
/// bus. The constructor, the update functions and the maintenance functions use the bus and pump
/// events.
class KvPelloGripper : public KvDeviceBase
{
    Q_OBJECT

public:
    /// Sets the link to the firmware's rate, reads the identity of the device and initialises the
    /// output image with its state. Pumps events for at least 200 ms, and for at least 300 ms if
    /// the device answers.
    /// After a failure, error() is InitilizationError and the object must not be used.
    KvPelloGripper(KvModbusAbstract &modbus, quint16 slaveId, QObject *parent = nullptr);
    ~KvPelloGripper() override;

    /// Whether the firmware version starts with the code of a product family.
    bool isValidDevice() override;

    /// Reads the input block and the three counters. Returns false if one of these reads failed, or
    /// if the answer equals the firmware version. The values that were not read then stay.
    bool updateInput();

    /// Reads the input and copies activation, go-to and position request to the output image, so
    /// that the first write does not change the gripper's movement.
    bool initOutput();

    /// Writes the output block and returns whether the device acknowledged it. The image counts as
    /// sent even after a failure. The call after a failure repeats the write. If a client sets a
    /// field between the two writes, the field is new output again after the second one succeeds.
    bool updateOutput();

    /// Call it when a scan begins that will replace this object. The new object starts with other
    /// values, so from now on every SET of a field marks new output, even with the same value.
    void expectReplacement() { m_isBeingReplaced = true; }

    /// Copies the fields that clients have set on `predecessor` and the device has not
    /// acknowledged.
    void copyUnacknowledgedFields(const KvPelloGripper &predecessor);

    /// Whether the output image must be written.
    bool isNewOutput() const { return m_newOutput != 0; }

    /// 1 if the device is activated and has completed its activation (status 3), else 0.
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
    /// 1 if an activation is requested and not yet carried out. Not the bit that was last sent.
    quint8 getActivateRequest() const { return m_output[ActivateRequest]; }
    quint8 getGoToRequest() const { return m_output[GoTo]; }
    quint8 getAutoReleaseRequest() const { return m_output[AutoRelease]; }
    quint8 getAutoReleaseDirectionRequest() const { return m_output[AutoReleaseDirection]; }
    quint8 getMaxPeakSupplyCurrent() const { return m_output[MaxPeakSupplyCurrent]; }
    quint8 getPositionRequest() const { return m_output[PositionRequest]; }
    quint8 getSpeedRequest() const { return m_output[SpeedRequest]; }
    quint8 getForceRequest() const { return m_output[ForceRequest]; }

    /// Requests an activation and always marks new output. If the gripper is active, a separate
    /// write deactivates it first.
    void setActivateRequest();
    /// Withdraws the activation and always marks new output.
    void clearActivateRequest();

    // Each of these marks new output only if it changes the image, or after expectReplacement().
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

    /// The counters that were last read, or 0.
    quint32 getNumberOfCycles() const { return m_numberOfCycles; }
    quint32 getNumberOfSecondsPumpIsOn() const { return m_numberOfSecondsPumpIsOn; }
    quint32 getNumberOfPumpActivations() const { return m_numberOfPumpActivations; }

    /// Each reads one counter. Returns false and keeps the old value if the read fails. Returns
    /// true and keeps the old value if the answer may belong to another counter. Does not change
    /// error().
    bool updateCycleNumber();
    bool updateNumberOfSecondsPumpIsOn();
    bool updateNumberOfPumpActivations();

    /// Each reads from the device and returns 0 if the read fails.
    quint32 getOdometer();
    quint32 getMicroUniqueCRC();
    quint16 getActivationCountRange();
    quint16 get200NSpeedLimit();

    /// Writes the speed limit at 200 N and reads it back. Returns true if the device shows another
    /// value than `limit`, and false if it shows `limit` or the write failed.
    bool set200NSpeedLimit(quint16 limit);

    /// Stores `newId` in the device, reads it back, restarts the firmware and then uses the new id.
    /// Returns true if the device has the new id. After a failure the object keeps its id, but the
    /// device may have stored the new one. Pumps events for at least 5.9 s if it succeeds, but only
    /// for one read if the device had the new id before. Does not check the range of `newId`.
    bool updateSlaveId(unsigned char newId);

private:
    /// The fields that clients set, and the activation bit that results from them.
    enum OutputField {
        LedBypass,
        LedRed,
        LedBlue,
        LedGreen,
        ActivateRequest, ///< Requested and not yet carried out.
        ActivateOutput,  ///< The bit that the next write sends.
        GripperMode,
        GoTo,
        AutoRelease,
        AutoReleaseDirection,
        MaxPeakSupplyCurrent,
        PositionRequest,
        SpeedRequest,
        ForceRequest,
        OutputFieldCount
    };
    using OutputFields = std::bitset<OutputFieldCount>;

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

    // Before the first read the gripper counts as active. The first output step always writes.
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
    std::array<quint8, OutputFieldCount> m_output{};
    quint8 m_newOutput = 1;
    OutputFields m_unacknowledged;    ///< Set by a client, not acknowledged by the device since.
    OutputFields m_setSinceAttempt;   ///< Set since the first attempt of the latest write.
    bool m_isWriteUnanswered = false; ///< The latest attempt failed, so the next one repeats it.
    bool m_isBeingReplaced = false;
};
