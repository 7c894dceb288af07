#pragma once

#include <QByteArray>
#include <QString>

/// Cuts requests out of a client's text with the two patterns themselves: the procedure that
/// RequestScanner stands for. Its time grows exponentially with ambiguous text, up to a limit at
/// which it gives up.
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

    /// Cuts the next request into `cut`. False if there is none, and on giving up.
    bool takeNext(Cut &cut);

    /// Whether the engine has reached its match limit, so that its answers are worth nothing.
    bool gaveUp() const { return m_gaveUp; }

    /// Length of the text from where the patterns can still match once more text arrives.
    int lengthThatMayMatter();

private:
    QString m_buffer;
    bool m_gaveUp = false;
};
