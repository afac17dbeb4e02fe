#include "BoardPlugin.h"

#include <lxbase/MessageCenter.h>
#include <lxclient/Accounts.h>

#include <QDateTime>

using lxclient::Quote;
namespace account = lxclient::account;
namespace setting = lxclient::setting;

BoardPlugin::BoardPlugin()
    : PluginBase(MessageThread | QuotationThread | EventThread)
{ }

lxclient::Error BoardPlugin::onInitialise(const QVariantMap& settings)
{
    const QStringList symbols = settings.value(setting::Symbols).toStringList();
    m_selection.begin(id(), symbols.value(0), settings);
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
    m_selection.post(report);

    report.remarks.append(QStringLiteral("shows ") + m_selection.symbol());
    const QStringList linked = m_selection.linked();
    if (!linked.isEmpty())
        report.remarks.append(QStringLiteral("linked with ") + linked.join(QLatin1String(", ")));
    return report;
}

void BoardPlugin::onMessage(const QString& sender, int type, const QVariant& payload)
{
    if (type != lxclient::SignalType)
        return;
    m_selection.select(payload.value<lxclient::Signal>().symbol);
    const QMutexLocker locker(&m_mutex);
    ++m_signals[sender];
}

void BoardPlugin::onEvent(const QString& sender, int type, const QVariant& payload)
{
    if (type == lxclient::PositionType) {
        const auto position = payload.value<lxclient::Position>();
        const QMutexLocker locker(&m_mutex);
        m_positions[position.symbol] = position.quantity;
        ++m_position_events;
    } else if (type == lxclient::SelectionType) {
        m_selection.follow(sender, payload);
    }
}

void BoardPlugin::onQuote(const Quote& quote)
{
    const QMutexLocker locker(&m_mutex);
    m_quotes[quote.symbol] = quote;
    m_audit.count(quote);
}
