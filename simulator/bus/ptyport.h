#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace sim {

/// Owns the near end of a pseudo-terminal. A master opens the far end as its serial port. This
/// class does not keep the far end open, so tools that list the users of the port list only the
/// master.
class PtyPort : public QObject
{
    Q_OBJECT

public:
    /// `mode` has the permission bits of the far end; 0 means the default of the system.
    explicit PtyPort(unsigned mode = 0, QObject *parent = nullptr);
    ~PtyPort() override;

    /// Makes a new pty. It is raw and has 9600 baud, like an adapter that was just plugged in.
    /// Throws Failure when it cannot, and leaves nothing open then.
    void open();
    /// Hangs up: the port of the master disappears.
    void close();
    bool isOpen() const { return m_fd >= 0; }

    /// The path of the far end, such as "/dev/pts/4". Empty while closed.
    const QString &path() const { return m_path; }
    /// The rate that the master has set. 0 for a rate that is not in baudrates.cpp.
    int baudRate() const;

    /// Sends without waiting. Bytes that the pty has no room for are lost, as on a wire.
    void write(const QByteArray &bytes);

signals:
    void received(const QByteArray &bytes, int baudRate);
    /// The master closed the port, or died.
    void masterLeft();
    /// The master died with exclusive use of the port, and this process may not end that use. Only
    /// a new pty can be opened again.
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
