#pragma once

#include "bussimulator.h"

#include <QStringList>

namespace sim {

/// Executes the text commands of the simulator. A table has one row for each command.
class CommandInterpreter : public QObject
{
    Q_OBJECT

public:
    /// `simulator` must outlive the interpreter.
    explicit CommandInterpreter(BusSimulator &simulator, QObject *parent = nullptr);

    /// Executes one line and returns the lines to print. The last line begins with "ok" or "error",
    /// the others do not. Returns nothing for an empty line and for a line that begins with "#".
    QStringList execute(const QString &line);

signals:
    void quitRequested();

private:
    struct Reply
    {
        QString text = {};      ///< printed after "ok"
        QStringList lines = {}; ///< printed before it
    };
    struct Command
    {
        const char *name;
        const char *arguments;
        const char *meaning;
        int minWords;
        int maxWords;
        Reply (CommandInterpreter::*run)(const QStringList &words); ///< throws Failure
    };
    static const Command commands[];

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
    /// The gripper with the slave id `word`. Throws Failure when there is no such gripper.
    SimulatedGripper &gripperOf(const QString &word) const;
    QStringList describe(SimulatedGripper &gripper) const;

    BusSimulator &m_simulator;
};

} // namespace sim
