#pragma once

#include <QByteArray>
#include <QString>

/// Cuts requests out of a client's text with the two patterns, as a reference for RequestScanner.
/// Ambiguous text takes exponential time. At a limit the engine gives up.
class PatternScanner
{
public:
    struct Cut
    {
        bool isGet = false;
        QString text;
        QString variable;
        bool hasLineEnding = false;
    };

    /// Adds the bytes of one read.
    void append(const QByteArray &packet);

    /// Cuts the next request into `cut`. Returns false if no request is left or the engine gave up.
    bool takeNext(Cut &cut);

    /// Whether the engine has reached its match limit. Its answers are then invalid.
    bool gaveUp() const { return m_gaveUp; }

    /// The length of the text that may still become part of a request.
    int lengthThatMayMatter();

private:
    QString m_buffer;
    bool m_gaveUp = false;
};
