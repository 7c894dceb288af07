#include "line.h"

#include "devicemap.h"
#include "linelistener.h"
#include "timeline.h"

namespace sim {

Line::Line(Timeline &timeline, QObject *parent)
    : QObject(parent)
    , m_timeline(timeline)
{
    qRegisterMetaType<FrameRecord>();
}

void Line::addListener(LineListener *listener)
{
    m_listeners.append(listener);
}

void Line::removeListener(LineListener *listener)
{
    m_listeners.removeAll(listener);
}

void Line::receive(const QByteArray &bytes, int baudRate)
{
    const qint64 nowUs = m_timeline.nowUs();
    // The timer for the silence may be late and fire only after these bytes.
    if (m_isInFrame && nowUs - m_lastByteUs >= frameGapUs)
        notifySilence();
    m_lastByteUs = nowUs;
    m_isInFrame = true;
    m_baudRate = baudRate;
    m_monitor.append(bytes);
    const QVector<LineListener *> listeners = m_listeners;
    for (LineListener *listener : listeners)
        listener->receive(bytes, baudRate);
    // Reports come last, so that they do not delay an answer.
    reportRequests();
    if (!m_isWatching)
        watchForSilence(frameGapUs);
}

void Line::transmit(const QByteArray &bytes, int baudRate, bool isModbus)
{
    if (baudRate != m_baudRate)
        return;
    emit bytesToMaster(bytes);
    // The request is reported before its answer, even if only a silence would end it.
    m_monitor.endFrame();
    reportRequests();
    emit frameSeen({m_timeline.nowUs(), FrameRecord::Direction::Answer, bytes, baudRate, isModbus});
}

void Line::reset()
{
    if (m_isInFrame)
        notifySilence();
}

void Line::watchForSilence(qint64 delayUs)
{
    m_isWatching = true;
    m_timeline.after(this, delayUs, [this] { onGapElapsed(); });
}

void Line::onGapElapsed()
{
    m_isWatching = false;
    if (!m_isInFrame)
        return;
    const qint64 quietUs = m_timeline.nowUs() - m_lastByteUs;
    if (quietUs < frameGapUs)
        watchForSilence(frameGapUs - quietUs);
    else
        notifySilence();
}

void Line::notifySilence()
{
    m_isInFrame = false;
    m_monitor.endFrame();
    reportRequests();
    const QVector<LineListener *> listeners = m_listeners;
    for (LineListener *listener : listeners)
        listener->onSilence();
}

void Line::reportRequests()
{
    while (const auto frame = m_monitor.take())
        emit frameSeen({m_lastByteUs, FrameRecord::Direction::Request, frame->bytes, m_baudRate,
                        frame->isValid && m_baudRate == map::firmwareBaudRate});
}

} // namespace sim
