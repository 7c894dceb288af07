#include "texttable.h"

namespace gripperctl {

namespace {

QVector<int> widthsOf(const QVector<QStringList> &rows)
{
    QVector<int> widths(rows.first().size(), 0);
    for (const QStringList &row : rows) {
        for (int column = 0; column < widths.size(); ++column)
            widths[column] = qMax(widths[column], row.value(column).size());
    }
    return widths;
}

QString lineOf(const QStringList &row, const QVector<int> &widths)
{
    QString line;
    for (int column = 0; column < widths.size(); ++column)
        line += row.value(column).leftJustified(widths[column] + 2);
    while (line.endsWith(QLatin1Char(' ')))
        line.chop(1);
    return line;
}

} // namespace

TextTable::TextTable(const QStringList &header)
    : m_rows{header}
{
}

void TextTable::addRow(const QStringList &row)
{
    m_rows.append(row);
}

QStringList TextTable::lines() const
{
    const QVector<int> widths = widthsOf(m_rows);
    QStringList lines;
    for (const QStringList &row : m_rows)
        lines.append(lineOf(row, widths));
    return lines;
}

} // namespace gripperctl
