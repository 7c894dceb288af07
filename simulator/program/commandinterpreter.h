#pragma once

#include "bussimulator.h"

#include <QStringList>

namespace sim {

/// The commands of the simulator, one a line: a table of names with what they do.
class CommandInterpreter : public QObject
{
    Q_OBJECT

public:
    /// `simulator` must outlive the interpreter.
    explicit CommandInterpreter(BusSimulator &simulator, QObject *parent = nullptr);

    /// Carries one line out and gives the lines to print. The last of them, and no other, begins
    /// with "ok" or "error". An empty line and one that begins with "#" give none.
    QStringList execute(const QString &line);

signals:
    void quitRequested();

private:
    struct Reply
    {
        bool isOk = true;
        QString text;           ///< behind "ok" or "error"
        QStringList lines = {}; ///< before it
    };
    struct Command
    {
        const char *name;
        const char *arguments;
        const char *meaning;
        int minWords;
        int maxWords;
        Reply (CommandInterpreter::*run)(const QStringList &words);
    };
    static const Command commands[];

    static Reply ok(const QString &text = QString()) { return {true, text}; }
    static Reply error(const QString &text) { return {false, text}; }
    static Reply usage(const Command &command);
    static Reply noGripper(const QString &word);
    static Reply done(bool isDone, const QString &word);
    static QStringList toLines(const Reply &reply);

    Reply run(const QStringList &words);
    Reply add(const QStringList &words);
    Reply remove(const QStringList &words);
    Reply fault(const QStringList &words);
    Reply clear(const QStringList &words);
    Reply set(const QStringList &words);
    Reply pin(const QStringList &words);
    Reply release(const QStringList &words);
    Reply get(const QStringList &words);
    Reply object(const QStringList &words);
    Reply faultCode(const QStringList &words);
    Reply restart(const QStringList &words);
    Reply show(const QStringList &words);
    Reply unplug(const QStringList &words);
    Reply plug(const QStringList &words);
    Reply help(const QStringList &words);
    Reply quit(const QStringList &words);

    using PutRegister = bool (RegisterBank::*)(quint16 address, quint16 value);
    Reply putRegister(const QStringList &words, PutRegister put);
    SimulatedGripper *gripperOf(const QString &word) const;
    QStringList linesOf(SimulatedGripper &gripper) const;

    BusSimulator &m_simulator;
};

} // namespace sim
