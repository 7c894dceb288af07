#pragma once

#include <QStringList>
#include <QVector>

namespace gripperctl {

/// Rows of words; each column is as wide as its widest word.
class TextTable
{
public:
    explicit TextTable(const QStringList &header);

    void addRow(const QStringList &row);

    /// One line per row, the header first, without blanks at the end.
    QStringList lines() const;

private:
    QVector<QStringList> m_rows;
};

} // namespace gripperctl
