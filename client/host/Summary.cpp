#include "Summary.h"

#include "BusTables.h"
#include "TextTable.h"

#include <QMap>

#include <algorithm>

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

// How far a plugin was behind, and for how much of the time nobody was further.
QStringList backlogCells(const QString& id, const SessionFigures& figures)
{
    quint64 largest = figures.backlogs.largest(id);
    bool known = largest > 0;
    for (const InboxStatistics& inbox : figures.bus.inboxes) {
        if (inbox.plugin == id) {
            largest = std::max(largest, inbox.peak);
            known = true;
        }
    }
    const int share = figures.backlogs.slowestShare(id);
    return {known ? grouped64(largest) : QString(),
            share > 0 ? QStringLiteral("%1 %").arg(share) : QString()};
}

QString pluginTable(const QVector<NamedReport>& reports, const SessionFigures& figures)
{
    TextTable table({QStringLiteral("Plugin"), QStringLiteral("Messages"),
                     QStringLiteral("Quotations"), QStringLiteral("Events"),
                     QStringLiteral("Backlog"), QStringLiteral("Slowest"), QString()});
    table.alignLeft(6);
    for (const NamedReport& named : reports) {
        const lxclient::Report& report = named.report;
        table.addRow(QStringList{named.id, grouped64(report.messages), grouped64(report.quotations),
                                 grouped64(report.events)}
                     + backlogCells(named.id, figures)
                     + QStringList(report.remarks.join(QLatin1String(", "))));
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

QString speed(const QVector<NamedReport>& reports, const SessionFigures& figures)
{
    quint64 deliveries = 0;
    for (const NamedReport& named : reports)
        deliveries += named.report.messages + named.report.quotations + named.report.events;
    const double seconds = static_cast<double>(figures.played_ns) / 1e9;
    const auto perSecond = [&](quint64 count) {
        return grouped(seconds > 0 ? qRound64(static_cast<double>(count) / seconds) : 0);
    };
    return QStringLiteral("%1 quotes in %2 s%3: %4 quotes/s, %5 deliveries/s.\n")
        .arg(grouped64(figures.quotes))
        .arg(seconds, 0, 'f', 2)
        .arg(figures.ending.isEmpty() ? QString() : QLatin1String(", ") + figures.ending)
        .arg(perSecond(figures.quotes), perSecond(deliveries));
}

// Nothing if it kept pace, or had none to keep.
QString slowness(const SessionFigures& figures)
{
    const double seconds = static_cast<double>(figures.played_ns) / 1e9;
    if (!figures.due_s || seconds < 1.1 * *figures.due_s + 1)
        return QString();
    const QString slowest = figures.backlogs.slowest();
    const QString reason = slowest.isEmpty()
        ? QStringLiteral("no plugin was behind; the machine or the reading of quotes was too slow")
        : QStringLiteral(
              "because of %1, which was the slowest plugin %2 % of the time and up to %3 items "
              "behind")
              .arg(slowest)
              .arg(figures.backlogs.slowestShare(slowest))
              .arg(grouped64(figures.backlogs.largest(slowest)));
    return QStringLiteral("Slower than asked, %1 s instead of %2 s: %3.\n")
        .arg(seconds, 0, 'f', 2)
        .arg(*figures.due_s, 0, 'f', 2)
        .arg(reason);
}

} // namespace

QString summary(const QVector<NamedReport>& reports, const Ledger& ledger,
                const SessionFigures& figures)
{
    quint64 superseded = 0;
    for (const InboxStatistics& inbox : figures.bus.inboxes)
        superseded += inbox.superseded;
    const QString verdict = !ledger.balances() ? QStringLiteral("THE LEDGER DOES NOT BALANCE.\n")
        : superseded == 0
        ? QStringLiteral("The ledger balances: everything was delivered exactly once, in order.\n")
        : QStringLiteral("The ledger balances: everything was delivered exactly once, in order, or "
                         "superseded by a newer quote (%1 were).\n")
              .arg(grouped64(superseded));
    QString text = symbolTable(reports) + QLatin1Char('\n') + pluginTable(reports, figures)
        + QLatin1Char('\n') + ledgerTable(ledger) + QLatin1Char('\n') + verdict
        + speed(reports, figures) + slowness(figures);
    if (!figures.record_file.isEmpty()) {
        text += QStringLiteral("%1 quotes recorded in %2.\n")
                    .arg(grouped64(figures.recorded), figures.record_file);
    }
    if (!ledger.balances()) {
        for (const QString& inbox : unfinishedInboxes(figures.bus))
            text += QStringLiteral("Not finished: %1\n").arg(inbox);
    }
    if (figures.statistics)
        text += QLatin1Char('\n') + inboxTable(figures.bus);
    if (figures.statistics || !ledger.balances())
        text += QLatin1Char('\n') + lostTable(figures.bus);
    return text;
}
