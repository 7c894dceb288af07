#pragma once

#include <QString>

/// Owns both ends of a pseudo-terminal. A serial port opens the port end by its name; the test
/// reads and writes the line end. The port end also stays open here, so the line survives when the
/// port closes, and its settings and unread bytes can be examined.
class PtyPair
{
public:
    enum class Mode {
        Raw,     ///< passes bytes unchanged, as a serial line does
        Terminal ///< turns a line feed into "\r\n", as the terminal of a user does
    };

    /// Ends the process when the system has no pseudo-terminal.
    explicit PtyPair(Mode mode = Mode::Raw);
    ~PtyPair();

    PtyPair(const PtyPair &) = delete;
    PtyPair &operator=(const PtyPair &) = delete;

    /// The descriptor of the line end; -1 after hangUp().
    int lineEnd() const { return m_lineEnd; }
    int portEnd() const { return m_portEnd; }
    /// The full path of the port end.
    const QString &portName() const { return m_portName; }

    /// Closes the line end, which hangs up the port end. A second call does nothing.
    void hangUp();

private:
    int m_lineEnd = -1;
    int m_portEnd = -1;
    QString m_portName;
};
