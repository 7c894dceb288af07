#pragma once

#include "framerecord.h"
#include "requestframer.h"

#include <QObject>
#include <QVector>

namespace sim {

class LineListener;
class Timeline;

/// The shared wire: hands everything that the master sends to every listener, marks the
/// silences, and carries answers back. It interprets nothing; it only cuts the traffic into
/// frames to report them.
class Line : public QObject
{
    Q_OBJECT

public:
    /// After this long without a byte a frame is over.
    static constexpr qint64 frameGapUs = 5000;

    /// `timeline` must outlive the line.
    explicit Line(Timeline &timeline, QObject *parent = nullptr);

    /// A listener must be removed before it is destroyed.
    void addListener(LineListener *listener);
    void removeListener(LineListener *listener);

    /// Bytes from the master, who runs the line at `baudRate` at this moment.
    void receive(const QByteArray &bytes, int baudRate);
    /// Bytes from a device that sends at `baudRate`, its firmware (Modbus) or its bootloader.
    /// Lost when the master listens at another rate.
    void transmit(const QByteArray &bytes, int baudRate, bool isModbus);
    /// Nobody is at the other end any more: whatever is half received is dropped.
    void reset();
    /// The master's rate as last seen by receive().
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
