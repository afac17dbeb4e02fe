#include "BoardPlugin.h"

#include <lxbase/MessageCenter.h>
#include <lxclient/Accounts.h>
#include <lxevent/EventMessageCommon.h>

#include <QDateTime>

#include <utility>

using lxclient::Quote;
namespace account = lxclient::account;
namespace counted = lxclient::counted;
namespace setting = lxclient::setting;

BoardPlugin::BoardPlugin()
    : PluginBase(MessageThread | QuotationThread | EventThread)
{ }

lxclient::Error BoardPlugin::onInitialise(const QVariantMap& settings)
{
    m_linked = settings.value(setting::Linked).toStringList();
    const QStringList symbols = settings.value(setting::Symbols).toStringList();
    m_selected = symbols.value(0);
    m_audit.expect(symbols);
    m_latest = settings.value(setting::BoardsKeepLatest).toBool();
    if (m_latest) {
        m_audit.expectLatest();
        InboxPolicy policy;
        policy.mode = InboxPolicy::KeepLatest;
        CMessageCenter::GetInstance()->setInboxPolicy(id(), QuotationThread, policy);
    }
    subscribeQuotes(settings);
    subscribeEvent(lxclient::PositionType);
    return {};
}

lxclient::Report BoardPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    if (m_latest)
        report.post(account::supersededQuotesAt(id()), m_audit.superseded());
    for (const Quote& quote : m_quotes) {
        const QString time = QDateTime::fromMSecsSinceEpoch(quote.time_ms, Qt::UTC)
                                 .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss"));
        report.show(quote.symbol, QStringLiteral("Time"), time);
        report.show(quote.symbol, QStringLiteral("Bid"), quote.bid.toString());
        report.show(quote.symbol, QStringLiteral("Ask"), quote.ask.toString());
        report.show(quote.symbol, QStringLiteral("Quotes"),
                    lxclient::grouped(static_cast<qint64>(quote.sequence)));
        report.show(quote.symbol, lxclient::column::Position,
                    lxclient::grouped(m_positions.value(quote.symbol)));
    }

    for (auto it = m_signals.constBegin(); it != m_signals.constEnd(); ++it) {
        report.messages += it.value();
        report.post(account::signalsOf(it.key()), it.value());
    }
    report.events = m_position_events;
    report.post(account::PositionEvents, m_position_events);
    if (!m_linked.isEmpty())
        report.post(account::selectionsOf(id()), counted::Put, m_selections_put);
    for (const QString& sender : m_linked)
        report.post(account::selectionsOf(sender), m_selections_received.value(sender));
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

void BoardPlugin::onMessage(const QString& sender, int type, const QVariant& payload)
{
    if (type != lxclient::SignalType)
        return;
    select(payload.value<lxclient::Signal>().symbol);
    const QMutexLocker locker(&m_mutex);
    ++m_signals[sender];
}

void BoardPlugin::onEvent(const QString& sender, int type, const QVariant& payload)
{
    const QMutexLocker locker(&m_mutex);
    if (type == lxclient::PositionType) {
        const auto position = payload.value<lxclient::Position>();
        m_positions[position.symbol] = position.quantity;
        ++m_position_events;
    } else if (type == lxclient::SelectionType) {
        m_selected = payload.value<lxclient::Selection>().symbol;
        ++m_selections_received[sender];
    }
}

void BoardPlugin::onQuote(const Quote& quote)
{
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
    PutEvent(id(),
             new CEventMessageCommon(id(), QString(), lxclient::SelectionType,
                                     QVariant::fromValue(lxclient::Selection{symbol})));
}
