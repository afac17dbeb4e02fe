// TextTable: rows and columns of text, lined up.
#ifndef LXCLIENT_TEXTTABLE_H
#define LXCLIENT_TEXTTABLE_H

#include <QStringList>
#include <QVector>

// Lines up columns: the first and those marked left-aligned to the left, all others to the right.
class TextTable
{
public:
    explicit TextTable(QStringList header);

    void addRow(const QStringList& cells);
    void alignLeft(int column) { m_left.append(column); }
    bool isEmpty() const { return m_rows.size() < 2; }

    QString toString() const;

private:
    QVector<QStringList> m_rows; // the header first
    QVector<int> m_left{0};
};

#endif
