#include "options.h"

#include "commandtable.h"
#include "failure.h"
#include "optiontable.h"

#include <QCommandLineParser>
#include <QRegularExpression>

namespace gripperctl {

namespace {

[[noreturn]] void refuse(const QString &problem, const QString &command = QString())
{
    const QString page = command.isEmpty() ? command : command + QLatin1Char(' ');
    throw Failure{ExitCode::WrongUsage,
                  QStringLiteral("%1; see gripperctl %2--help").arg(problem, page)};
}

QVector<OptionRow> allOptions()
{
    return generalOptions() + commandOptions();
}

QCommandLineOption parserOption(const OptionRow &row)
{
    QStringList names{row.nameText()};
    if (row.shortName != nullptr)
        names.append(QString::fromLatin1(row.shortName));
    QCommandLineOption option(names);
    if (row.valueName != nullptr)
        option.setValueName(QString::fromLatin1(row.valueName));
    return option;
}

void checkNumber(const OptionRow &row, const QString &value)
{
    bool isNumber = false;
    const double number =
        row.kind == OptionRow::Kind::Whole ? value.toInt(&isNumber) : value.toDouble(&isNumber);
    // This form of the comparison also refuses NaN.
    if (!isNumber || !(number >= row.min && number <= row.max)) {
        refuse(QStringLiteral("--%1 takes a number from %2 to %3, not \"%4\"")
                   .arg(row.nameText())
                   .arg(row.min)
                   .arg(row.max)
                   .arg(value));
    }
}

void checkValue(const OptionRow &row, const QStringList &values)
{
    if (values.size() > 1)
        refuse(QStringLiteral("--%1 is given twice").arg(row.nameText()));
    const QString value = values.value(0);
    if (row.kind == OptionRow::Kind::Whole || row.kind == OptionRow::Kind::Seconds)
        checkNumber(row, value);
    else if (row.kind == OptionRow::Kind::Text && value.isEmpty())
        refuse(QStringLiteral("--%1 needs a value").arg(row.nameText()));
}

Endpoint endpointFrom(const QString &text)
{
    const auto endpoint = Endpoint::fromText(text);
    if (!endpoint)
        refuse(QStringLiteral("--host takes HOST or HOST:PORT, not \"%1\"").arg(text));
    return *endpoint;
}

} // namespace

bool Options::has(const char *name) const
{
    return values.contains(QString::fromLatin1(name));
}

QString Options::text(const char *name) const
{
    return values.value(QString::fromLatin1(name));
}

std::optional<int> Options::whole(const char *name) const
{
    return has(name) ? std::optional<int>(text(name).toInt()) : std::nullopt;
}

std::optional<int> Options::milliseconds(const char *name) const
{
    return has(name) ? std::optional<int>(qRound(text(name).toDouble() * 1000)) : std::nullopt;
}

Options Options::fromWords(const QStringList &words)
{
    QCommandLineParser parser;
    for (const OptionRow &row : allOptions())
        parser.addOption(parserOption(row));
    if (!parser.parse(QStringList{QStringLiteral("gripperctl")} + words))
        refuse(parser.errorText().remove(QRegularExpression(QStringLiteral(R"(\.\z)"))));
    Options options;
    for (const OptionRow &row : allOptions()) {
        if (!parser.isSet(row.nameText()))
            continue;
        if (row.kind != OptionRow::Kind::Flag)
            checkValue(row, parser.values(row.nameText()));
        options.values.insert(row.nameText(), parser.value(row.nameText()));
    }
    if (options.has("host"))
        options.endpoint = endpointFrom(options.text("host"));
    options.arguments = parser.positionalArguments();
    if (!options.arguments.isEmpty())
        options.command = options.arguments.takeFirst();
    return options;
}

void checkAgainst(const CommandRow &command, const Options &options)
{
    for (const OptionRow &row : commandOptions()) {
        if (options.has(row.name) && !command.takes(row.name)) {
            refuse(QStringLiteral("%1 does not take --%2").arg(options.command, row.nameText()),
                   options.command);
        }
    }
    if (options.arguments.size() < command.minArguments)
        refuse(QStringLiteral("%1 needs %2").arg(options.command, command.argumentsText()),
               options.command);
    if (options.arguments.size() > command.maxArguments) {
        refuse(QStringLiteral("%1 does not take \"%2\"")
                   .arg(options.command, options.arguments.at(command.maxArguments)),
               options.command);
    }
}

} // namespace gripperctl
