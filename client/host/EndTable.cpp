#include "EndTable.h"

#include <QMap>

#include <algorithm>
#include <utility>

using lxclient::grouped;

namespace {

QString grouped64(quint64 number)
{
    return grouped(static_cast<qint64>(number));
}

// Rows and columns in the order in which plugins report them; what nobody reports stays empty.
QString symbolTable(const QVector<NamedReport>& reports)
{
    QStringList symbols;
    QStringList columns;
    QMap<QPair<QString, QString>, QString> texts;
    for (const NamedReport& named : reports) {
        for (const lxclient::Cell& cell : named.report.cells) {
            if (!symbols.contains(cell.symbol))
                symbols.append(cell.symbol);
            if (!columns.contains(cell.column))
                columns.append(cell.column);
            texts.insert({cell.symbol, cell.column}, cell.text);
        }
    }
    TextTable table(QStringList(QStringLiteral("Symbol")) + columns);
    for (const QString& symbol : qAsConst(symbols)) {
        QStringList row(symbol);
        for (const QString& column : qAsConst(columns))
            row.append(texts.value({symbol, column}));
        table.addRow(row);
    }
    return table.isEmpty() ? QStringLiteral("No quotes.\n") : table.toString();
}

QString pluginTable(const QVector<NamedReport>& reports)
{
    TextTable table({QStringLiteral("Plugin"), QStringLiteral("Messages"),
                     QStringLiteral("Quotations"), QStringLiteral("Events"), QString()});
    table.alignLeft(4);
    for (const NamedReport& named : reports) {
        const lxclient::Report& report = named.report;
        table.addRow({named.id, grouped64(report.messages), grouped64(report.quotations),
                      grouped64(report.events), report.remarks.join(QLatin1String(", "))});
    }
    return table.toString();
}

// Who posted to the account, each with what he counted, and how many if they differ:
// "orders put/executed, journal executed" or "orders put 3/executed 2, journal executed 2".
QString partiesOf(const Ledger::Account& account)
{
    QStringList parties;
    QString previous;
    for (const Ledger::Entry& entry : account.entries) {
        QStringList words(entry.what);
        if (!account.balances())
            words.append(grouped64(entry.count));
        words.removeAll(QString());
        const QString text = words.join(QLatin1Char(' '));
        if (entry.who == previous)
            parties.last() += QLatin1Char('/') + text;
        else
            parties.append(QString(entry.who + QLatin1Char(' ') + text).trimmed());
        previous = entry.who;
    }
    if (account.entries.size() == 1 && !account.balances())
        parties.append(QStringLiteral("nobody else"));
    return parties.join(QLatin1String(", "));
}

QString ledgerTable(const Ledger& ledger)
{
    TextTable table(
        {QStringLiteral("Ledger"), QStringLiteral("Count"), QStringLiteral("Counted alike by")});
    table.alignLeft(2);
    for (const Ledger::Account& account : ledger.accounts()) {
        table.addRow({account.name,
                      account.balances() ? grouped64(account.entries.first().count)
                                         : QStringLiteral("UNEQUAL"),
                      partiesOf(account)});
    }
    QString text = table.toString();
    for (const QString& fault : ledger.faults())
        text += QStringLiteral("FAULT  %1\n").arg(fault);
    return text;
}

} // namespace

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

QString endTable(const QVector<NamedReport>& reports, const Ledger& ledger)
{
    const QString verdict = ledger.balances()
        ? QStringLiteral("The ledger balances: everything was delivered exactly once, in order.")
        : QStringLiteral("THE LEDGER DOES NOT BALANCE.");
    return symbolTable(reports) + QLatin1Char('\n') + pluginTable(reports) + QLatin1Char('\n')
        + ledgerTable(ledger) + QLatin1Char('\n') + verdict + QLatin1Char('\n');
}
