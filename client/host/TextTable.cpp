#include "TextTable.h"

#include <algorithm>
#include <utility>

TextTable::TextTable(QStringList header)
    : m_rows{std::move(header)}
{ }

void TextTable::addRow(const QStringList& cells)
{
    m_rows.append(cells);
}

QString TextTable::toString() const
{
    QVector<int> widths(m_rows.first().size());
    for (const QStringList& row : m_rows) {
        for (int i = 0; i < row.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    }
    QString text;
    for (const QStringList& row : m_rows) {
        QString line;
        for (int i = 0; i < row.size(); ++i) {
            line += i > 0 ? QLatin1String("  ") : QLatin1String();
            line += m_left.contains(i) ? row[i].leftJustified(widths[i])
                                       : row[i].rightJustified(widths[i]);
        }
        while (line.endsWith(QLatin1Char(' ')))
            line.chop(1);
        text += line + QLatin1Char('\n');
    }
    return text;
}
