#include "BoardPlugin.h"

#include <lxevent/EventMessageCommon.h>

#include <QDateTime>

#include <utility>

using lxclient::Quote;

namespace {

QString selectionsOf(const QString& id)
{
    return QStringLiteral("selections of ") + id;
}

} // namespace

bool BoardPlugin::initialise(const QString& id, const QVariantMap& settings, QString&)
{
    m_id = id;
    m_linked = settings.value(lxclient::setting::Linked).toStringList();
    const QStringList symbols = settings.value(lxclient::setting::Symbols).toStringList();
    m_selected = symbols.value(0);
    m_audit.expect(symbols);

    Reg(m_id, this, MessageThread | QuotationThread | EventThread);
    SubEvent(m_id, lxclient::PositionType, 1);
    for (const QString& symbol : symbols)
        Sub(m_id, lxclient::quoteType(settings, symbol), 1);
    return true;
}

void BoardPlugin::shutDown()
{
    UnReg(m_id);
}

lxclient::Report BoardPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    for (const Quote& quote : m_quotes) {
        report.cells.append({quote.symbol, QStringLiteral("Time"),
                             QDateTime::fromMSecsSinceEpoch(quote.time_ms, Qt::UTC)
                                 .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"))});
        report.cells.append({quote.symbol, QStringLiteral("Bid"), quote.bid.toString()});
        report.cells.append({quote.symbol, QStringLiteral("Ask"), quote.ask.toString()});
        report.cells.append({quote.symbol, QStringLiteral("Quotes"),
                             lxclient::grouped(static_cast<qint64>(quote.sequence))});
        report.cells.append({quote.symbol, QStringLiteral("Position"),
                             lxclient::grouped(m_positions.value(quote.symbol))});
    }

    for (auto it = m_signals.constBegin(); it != m_signals.constEnd(); ++it) {
        report.messages += it.value();
        report.postings.append({QStringLiteral("signals of ") + it.key(), QString(), it.value()});
    }
    report.events = m_position_events;
    report.postings.append({QStringLiteral("position events"), QString(), m_position_events});
    if (!m_linked.isEmpty())
        report.postings.append({selectionsOf(m_id), QStringLiteral("put"), m_selections_put});
    for (const QString& sender : m_linked) {
        report.postings.append(
            {selectionsOf(sender), QString(), m_selections_received.value(sender)});
    }
    for (auto it = m_selections_received.begin(); it != m_selections_received.end(); ++it) {
        report.events += it.value();
        if (!m_linked.contains(it.key()))
            report.faults.append(QStringLiteral("followed %1 without being linked").arg(it.key()));
    }

    report.remarks.append(QStringLiteral("shows ") + m_selected);
    if (!m_linked.isEmpty())
        report.remarks.append(QStringLiteral("linked with ") + m_linked.join(QLatin1String(", ")));
    return report;
}

void BoardPlugin::RecvMsg(QString srcId, QVariant type, QVariant data)
{
    if (type.toInt() != lxclient::SignalType)
        return;
    select(data.value<lxclient::Signal>().symbol);
    const QMutexLocker locker(&m_mutex);
    ++m_signals[srcId];
}

void BoardPlugin::RecvEvent(QString srcId, QVariant type, QVariant data)
{
    const QMutexLocker locker(&m_mutex);
    if (type.toInt() == lxclient::PositionType) {
        const auto position = data.value<lxclient::Position>();
        m_positions[position.symbol] = position.quantity;
        ++m_position_events;
    } else if (type.toInt() == lxclient::SelectionType) {
        m_selected = data.value<lxclient::Selection>().symbol;
        ++m_selections_received[srcId];
    }
}

void BoardPlugin::RecvQuotationMsg(QString, QVariant, QVariant data)
{
    const auto quote = data.value<Quote>();
    const QMutexLocker locker(&m_mutex);
    m_quotes[quote.symbol] = quote;
    m_audit.count(quote);
}

void BoardPlugin::select(const QString& symbol)
{
    {
        const QMutexLocker locker(&m_mutex);
        if (std::exchange(m_selected, symbol) == symbol)
            return;
        ++m_selections_put;
    }
    PutEvent(m_id,
             new CEventMessageCommon(m_id, QString(), lxclient::SelectionType,
                                     QVariant::fromValue(lxclient::Selection{symbol})));
}
