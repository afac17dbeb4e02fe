// EndTable: what lxclient prints at the end of a session.
#ifndef LXCLIENT_ENDTABLE_H
#define LXCLIENT_ENDTABLE_H

#include "Ledger.h"
#include "PluginHost.h"

#include <QString>
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

// The tables of symbols and plugins, then the ledger and its verdict.
QString endTable(const QVector<NamedReport>& reports, const Ledger& ledger);

#endif
