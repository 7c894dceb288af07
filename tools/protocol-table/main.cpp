// Prints the daemon's GET and SET tables and its product families as JSON, for documents, tests and
// client libraries.
#include "getvariables.h"
#include "productfamily.h"
#include "server.h"
#include "setvariables.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdio>

namespace {

QString text(std::string_view view)
{
    return QString::fromUtf8(view.data(), static_cast<int>(view.size()));
}

QString sourceName(ValueSource source)
{
    switch (source) {
    case ValueSource::Gripper:
        return QStringLiteral("gripper");
    case ValueSource::Request:
        return QStringLiteral("request");
    case ValueSource::Identity:
        return QStringLiteral("identity");
    case ValueSource::Daemon:
        return QStringLiteral("daemon");
    case ValueSource::Constant:
        return QStringLiteral("constant");
    }
    return QString();
}

QJsonArray getRows()
{
    QJsonArray rows;
    for (const GetVariable &variable : getVariables()) {
        rows.append(QJsonObject{{QStringLiteral("name"), text(variable.name)},
                                {QStringLiteral("needsGripper"), variable.needsGripper()},
                                {QStringLiteral("mayWait"), variable.mayWait()},
                                {QStringLiteral("source"), sourceName(variable.source)},
                                {QStringLiteral("range"), text(variable.range)},
                                {QStringLiteral("meaning"), text(variable.meaning)}});
    }
    return rows;
}

QJsonArray setRows()
{
    QJsonArray rows;
    for (const SetVariable &variable : setVariables()) {
        rows.append(QJsonObject{{QStringLiteral("name"), text(variable.name)},
                                {QStringLiteral("needsGripper"), variable.needsGripper},
                                {QStringLiteral("mayWait"), variable.mayWait},
                                {QStringLiteral("range"), text(variable.range)},
                                {QStringLiteral("meaning"), text(variable.meaning)},
                                {QStringLiteral("refusal"), text(variable.refusal)}});
    }
    return rows;
}

QString gripName(Grip grip)
{
    switch (grip) {
    case Grip::Fingers:
        return QStringLiteral("fingers");
    case Grip::Vacuum:
        return QStringLiteral("vacuum");
    }
    return QString();
}

QJsonArray familyRows()
{
    QJsonArray rows;
    for (const ProductFamily *family : productFamilies) {
        const bool isRom = family->bootloader == &romBootloader;
        rows.append(QJsonObject{
            {QStringLiteral("code"), family->code},
            {QStringLiteral("grip"), gripName(family->grip)},
            {QStringLiteral("bootloader"), isRom ? QStringLiteral("rom") : QStringLiteral("own")},
            {QStringLiteral("baudRate"), static_cast<int>(family->bootloader->baudRate)},
            {QStringLiteral("firmwareImage"), QString::fromLatin1(family->firmwareImage)}});
    }
    return rows;
}

} // namespace

int main()
{
    const QJsonObject tables{{QStringLiteral("port"), Server::__port},
                             {QStringLiteral("get"), getRows()},
                             {QStringLiteral("set"), setRows()},
                             {QStringLiteral("families"), familyRows()}};
    const QByteArray json = QJsonDocument(tables).toJson();
    return std::fwrite(json.constData(), 1, static_cast<std::size_t>(json.size()), stdout) ==
                   static_cast<std::size_t>(json.size())
               ? 0
               : 1;
}
