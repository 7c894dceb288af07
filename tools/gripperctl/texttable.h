#pragma once

#include <QStringList>
#include <QVector>

namespace gripperctl {

/// Rows of words in columns as wide as their widest word.
class TextTable
{
public:
    explicit TextTable(const QStringList &header);

    void addRow(const QStringList &row);

    /// One line each, the header first; no blanks at the ends of lines.
    QStringList lines() const;

private:
    QVector<QStringList> m_rows;
};

} // namespace gripperctl
