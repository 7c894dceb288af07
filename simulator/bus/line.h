#pragma once

#include "framerecord.h"
#include "requestframer.h"

#include <QObject>
#include <QVector>

namespace sim {

class LineListener;
class Timeline;

/// The wire that all grippers share. It passes the bytes from the master to every listener, detects
/// silences, and passes answers to the master. It cuts the traffic into frames only to report them.
class Line : public QObject
{
    Q_OBJECT

public:
    /// A frame ends after this time without a byte.
    static constexpr qint64 frameGapUs = 5000;

    /// `timeline` must outlive the line.
    explicit Line(Timeline &timeline, QObject *parent = nullptr);

    /// The listener must be removed before it is destroyed.
    void addListener(LineListener *listener);
    void removeListener(LineListener *listener);

    /// Takes bytes from the master, whose port is set to `baudRate`.
    void receive(const QByteArray &bytes, int baudRate);
    /// Sends bytes of a gripper at `baudRate`; `isModbus` is false for its bootloader. The bytes
    /// are lost when the port of the master has another rate.
    void transmit(const QByteArray &bytes, int baudRate, bool isModbus);
    /// The master has closed the port: ends the frame that has arrived in part.
    void reset();
    /// The baud rate of the latest bytes from the master.
    int baudRate() const { return m_baudRate; }

signals:
    void bytesToMaster(const QByteArray &bytes);
    void frameSeen(const sim::FrameRecord &frame);

private:
    void watchForSilence(qint64 delayUs);
    void onGapElapsed();
    void notifySilence();
    void reportRequests();

    Timeline &m_timeline;
    QVector<LineListener *> m_listeners;
    RequestFramer m_monitor;
    qint64 m_lastByteUs = 0;
    bool m_isInFrame = false;
    bool m_isWatching = false;
    int m_baudRate = 0;
};

} // namespace sim
