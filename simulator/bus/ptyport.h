#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace sim {

/// The near end of a pseudo-terminal whose far end a master opens as its serial port. Keeps only
/// its own end open, so that tools which look who uses the port see the master alone.
class PtyPort : public QObject
{
    Q_OBJECT

public:
    /// `mode`: permission bits of the far end, or 0 for the system's own.
    explicit PtyPort(unsigned mode = 0, QObject *parent = nullptr);
    ~PtyPort() override;

    /// Makes a new pty, raw, at 9600 baud like an adapter that was just plugged in. Throws Failure
    /// when it cannot, and leaves nothing open then.
    void open();
    /// Hangs up: the master sees its port disappear.
    void close();
    bool isOpen() const { return m_fd >= 0; }

    /// The far end, such as "/dev/pts/4"; empty while closed.
    const QString &path() const { return m_path; }
    /// The rate that the master has set, 0 for one that has no standard name.
    int baudRate() const;

    /// Sends without waiting. What the master does not take in time is lost, as on a wire.
    void write(const QByteArray &bytes);

signals:
    void received(const QByteArray &bytes, int baudRate);
    /// The master closed the port, or died.
    void masterLeft();
    /// The master died with exclusive use of the port, which nobody can lift: it takes a new pty.
    void stuck();

private:
    void openNearEnd();
    void makeRaw();
    void watchOpening();
    void onReadable();
    void onOpened();
    void onMasterLeft();
    bool resetFarEnd();
    bool readAll();
    void drainWatch();

    unsigned m_mode;
    int m_fd = -1;
    int m_watchFd = -1;
    QString m_path;
    std::unique_ptr<QSocketNotifier> m_readable;
    std::unique_ptr<QSocketNotifier> m_opened;
};

} // namespace sim
