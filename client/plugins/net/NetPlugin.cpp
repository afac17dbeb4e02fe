#include "NetPlugin.h"

#include <Recordings.h>
#include <SyntheticSession.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/MessageCommonManage.h>
#include <lxclient/Accounts.h>
#include <lxmsg/MessageCommon.h>

#include <QDateTime>
#include <QLoggingCategory>
#include <QThread>

#include <utility>

using lxclient::Error;
using lxclient::Execution;
using lxclient::Order;
using lxclient::Quote;
namespace account = lxclient::account;
namespace counted = lxclient::counted;
namespace setting = lxclient::setting;

namespace {

Q_LOGGING_CATEGORY(lcNet, "lxclient.net")

// The player looks after so many quotes how many items are under way, and waits while they are too
// many, so that no inbox comes near 100,000 items and a session of any length needs the same
// memory. What is under way is the work of some hundredths of a second.
constexpr quint64 QuotesPerLook = 4096;
constexpr quint64 MaxUnderWay = 50'000;
constexpr std::chrono::seconds StandstillLimit{30};

// "6 h 12 min", "75 s".
QString waitText(double seconds)
{
    const auto minutes = static_cast<qint64>(seconds / 60);
    if (minutes >= 48 * 60)
        return QStringLiteral("%1 days").arg(minutes / (24 * 60));
    if (minutes >= 60)
        return QStringLiteral("%1 h %2 min").arg(minutes / 60).arg(minutes % 60);
    return QStringLiteral("%1 s").arg(seconds, 0, 'f', 0);
}

QString timeText(qint64 ms)
{
    return QDateTime::fromMSecsSinceEpoch(ms, Qt::UTC)
        .toString(QStringLiteral("yyyy-MM-dd hh:mm:ss 'UTC'"));
}

} // namespace

NetPlugin::NetPlugin()
    : PluginBase(MessageThread)
{ }

NetPlugin::~NetPlugin() = default;

Error NetPlugin::onInitialise(const QVariantMap& settings)
{
    m_heard = settings.value(setting::Heard).value<lxclient::HeardQuotes>();
    std::optional<double> skipGapsS;
    if (settings.contains(setting::SkipGaps))
        skipGapsS = settings.value(setting::SkipGaps).toDouble();
    m_pacer = std::make_unique<QuotePacer>(settings.value(setting::Speed).toDouble(), skipGapsS,
                                           sayLongGap);
    const QStringList files = settings.value(setting::Quotes).toStringList();
    if (files.isEmpty()) {
        m_source =
            std::make_unique<SyntheticSession>(settings.value(setting::SyntheticSeed).toULongLong(),
                                               settings.value(setting::SyntheticQuotes).toInt());
    } else {
        auto recordings = std::make_unique<QuoteMerger>(
            [this](const QString& where, const QString& why) { reportBadRow(where, why); });
        if (const Error error = recordings->open(files))
            return error;
        m_source = std::move(recordings);
    }
    const QStringList symbols = settings.value(setting::Symbols).toStringList();
    for (const QString& symbol : symbols) {
        m_line_of_symbol.insert(symbol, m_lines.size());
        m_lines.append({symbol, lxclient::quoteType(settings, symbol)});
    }
    borrowRecords();
    return {};
}

void NetPlugin::onShutDown()
{
    stop();
    if (m_player.joinable())
        m_player.join();
    returnRecords();
}

lxclient::Report NetPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    for (const Line& line : m_lines)
        report.post(account::quotesOf(line.symbol), line.put);
    report.messages = m_orders;
    report.post(account::Orders, counted::Received, m_orders);
    report.post(account::Orders, counted::Acknowledged, m_acknowledged);
    report.post(account::Orders, counted::Executed, m_executed);
    if (m_shut_down) { // before that, some are out
        report.post(account::PoolRecords, counted::Borrowed, m_borrowed);
        report.post(account::PoolRecords, counted::Returned, m_returned);
    }
    report.remarks.append(
        QStringLiteral("pool records: %1 borrowed, %2 returned").arg(m_borrowed).arg(m_returned));
    if (m_bad_rows > 0)
        report.remarks.append(QStringLiteral("bad rows skipped: %1").arg(m_bad_rows));
    if (m_pacer->gapsSkipped() > 0)
        report.remarks.append(QStringLiteral("gaps skipped: %1").arg(m_pacer->gapsSkipped()));
    report.faults = m_faults;
    return report;
}

void NetPlugin::start()
{
    m_player = std::thread([this] { play(); });
}

void NetPlugin::stop()
{
    m_pacer->stop();
}

// The exchange: an order comes in because it was put with the send-to-net flag.
void NetPlugin::onMessage(const QString& sender, int type, const QVariant& payload)
{
    if (type == lxclient::OrderType)
        fill(sender, payload.value<Order>());
    const QMutexLocker locker(&m_mutex);
    ++m_orders;
}

void NetPlugin::play()
{
    QThread::currentThread()->setObjectName(id() + QStringLiteral("_Player")); // in traces
    while (const auto timed = m_source->next()) {
        if (!m_pacer->waitUntilDue(timed->due_ms))
            break;
        putQuote(timed->quote);
        if (m_played % QuotesPerLook == 0 && !waitForRoom())
            break;
    }
    m_ended = true;
}

// False: stop, or nobody takes anything any more: then the session is to end, and says who.
bool NetPlugin::waitForRoom()
{
    Clock::time_point moved = Clock::now();
    quint64 last = 0;
    for (quint64 items = itemsUnderWay(); items > MaxUnderWay; items = itemsUnderWay()) {
        if (std::exchange(last, items) != items)
            moved = Clock::now();
        if (Clock::now() - moved > StandstillLimit) {
            fault(QStringLiteral("playing ended early: an inbox is full and was not worked on for "
                                 "%1 s")
                      .arg(StandstillLimit.count()));
            return false;
        }
        if (!m_pacer->waitFor(std::chrono::milliseconds(1)))
            return false;
    }
    return true;
}

// Of the fullest inbox, with what its handler has in hand and what may still come from the list of
// the quotations; or of the listener, if that is further behind.
quint64 NetPlugin::itemsUnderWay() const
{
    const BusStatistics bus = CBusMonitor::statistics();
    quint64 most = 0;
    for (const InboxStatistics& inbox : bus.inboxes)
        most = qMax(most, inbox.put - inbox.handled - inbox.dropped - inbox.superseded);
    most += bus.quotationList.put - bus.quotationList.handled;
    return m_heard ? qMax(most, m_played - m_heard->load()) : most;
}

void NetPlugin::sayLongGap(qint64 fromMs, qint64 toMs, double waitS, bool skipped)
{
    qCWarning(lcNet).noquote().nospace()
        << "no quotes from " << timeText(fromMs) << " to " << timeText(toMs) << ", "
        << waitText(waitS) << " at this speed: "
        << (skipped ? "left out" : "waiting; --skip-gaps SECONDS leaves such gaps out");
}

void NetPlugin::putQuote(Quote quote)
{
    const int index = m_line_of_symbol.value(quote.symbol, -1);
    if (index < 0) {
        fault(QStringLiteral("quote of unknown symbol %1: a recording was changed while it played")
                  .arg(quote.symbol));
        return;
    }
    int type = 0;
    {
        const QMutexLocker locker(&m_mutex);
        Line& line = m_lines[index];
        quote.sequence = ++line.put;
        line.last->SetMsg(QVariant::fromValue(quote));
        type = line.type;
    }
    ++m_played;
    PutQuotationMsg(id(), new CMessageCommon(id(), QString(), type, QVariant::fromValue(quote)));
}

// The acknowledgement goes to who put the order, the execution to everybody who subscribed.
void NetPlugin::fill(const QString& customer, const Order& order)
{
    Quote last;
    {
        const QMutexLocker locker(&m_mutex);
        const int index = m_line_of_symbol.value(order.symbol, -1);
        if (index >= 0)
            last = m_lines[index].last->GetMsg().value<Quote>();
    }
    if (last.sequence == 0) {
        fault(QStringLiteral("order %1 (%2) for %3, which was never quoted")
                  .arg(order.order_id)
                  .arg(order.trace_id, order.symbol));
        return;
    }

    {
        const QMutexLocker locker(&m_mutex);
        ++m_acknowledged;
        ++m_executed;
    }
    auto* const acknowledgement = new CMessageCommon(id(), customer, lxclient::AcknowledgementType,
                                                     QVariant::fromValue(order));
    acknowledgement->setTraceId(order.trace_id);
    PutNetMsg(id(), acknowledgement);

    const Execution filled{order, order.quantity > 0 ? last.ask : last.bid, last.time_ms};
    auto* const execution =
        new CMessageCommon(id(), QString(), lxclient::ExecutionType, QVariant::fromValue(filled));
    execution->setTraceId(order.trace_id);
    PutNetMsg(id(), execution);
}

void NetPlugin::reportBadRow(const QString& where, const QString& reason)
{
    qCWarning(lcNet).noquote().nospace() << where << ": " << reason << "; row skipped";
    const QMutexLocker locker(&m_mutex);
    ++m_bad_rows;
}

void NetPlugin::fault(const QString& what)
{
    qCCritical(lcNet).noquote() << what;
    const QMutexLocker locker(&m_mutex);
    m_faults.append(what);
}

// The pool's thread makes the first batch; without it the first draw would, and return null.
// Another user may draw the batch empty meanwhile, hence the loop: a null draw has made a new
// batch.
void NetPlugin::borrowRecords()
{
    auto* const pool = CMessageCommonManage::GetInstance();
    pool->start();
    pool->wait();
    for (Line& line : m_lines) {
        while (!line.last)
            line.last = pool->getMessageCommon();
        line.last->SetMsg(QVariant()); // as the last user left it, that is
        ++m_borrowed;
    }
}

// Empty, so that the pool does not keep the quotes for the life of the process.
void NetPlugin::returnRecords()
{
    const QMutexLocker locker(&m_mutex);
    for (Line& line : m_lines) {
        line.last->SetMsg(QVariant());
        CMessageCommonManage::GetInstance()->freeMessageCommon(std::exchange(line.last, nullptr));
        ++m_returned;
    }
    m_shut_down = true;
}
