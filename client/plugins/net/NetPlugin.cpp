#include "NetPlugin.h"

#include <lxbase/MessageCommonManage.h>
#include <lxclient/QuoteAudit.h>
#include <lxmsg/MessageCommon.h>

#include <QLoggingCategory>

#include <utility>

using lxclient::Execution;
using lxclient::Order;
using lxclient::Quote;

namespace {

Q_LOGGING_CATEGORY(lcNet, "lxclient.net")

} // namespace

NetPlugin::~NetPlugin() = default;

bool NetPlugin::initialise(const QString& id, const QVariantMap& settings, QString& reason)
{
    m_id = id;
    m_speed = settings.value(QStringLiteral("speed")).toDouble();
    const QStringList files = settings.value(QStringLiteral("quotes")).toStringList();
    if (files.isEmpty()) {
        m_source = std::make_unique<SyntheticSession>(
            settings.value(QStringLiteral("synthetic.seed")).toULongLong(),
            settings.value(QStringLiteral("synthetic.quotes")).toInt());
    } else {
        const auto onBadRow = [this](const QString& where, const QString& why) {
            reportBadRow(where, why);
        };
        m_source = QuoteMerger::open(files, onBadRow, reason);
        if (!m_source)
            return false;
    }
    const QStringList symbols = settings.value(lxclient::setting::Symbols).toStringList();
    for (const QString& symbol : symbols) {
        m_line_of_symbol.insert(symbol, m_lines.size());
        m_lines.append({symbol, lxclient::quoteType(settings, symbol)});
    }
    borrowRecords();
    Reg(m_id, this, MessageThread);
    return true;
}

void NetPlugin::shutDown()
{
    stop();
    if (m_player.joinable())
        m_player.join();
    UnReg(m_id);
    returnRecords();
}

lxclient::Report NetPlugin::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    for (const Line& line : m_lines)
        report.postings.append({lxclient::QuoteAudit::account(line.symbol), QString(), line.put});
    report.messages = m_orders;
    report.postings.append({QStringLiteral("orders"), QStringLiteral("received"), m_orders});
    report.postings.append(
        {QStringLiteral("orders"), QStringLiteral("acknowledged"), m_acknowledged});
    report.postings.append({QStringLiteral("orders"), QStringLiteral("executed"), m_executed});
    if (m_shut_down) { // before that, some are out
        report.postings.append(
            {QStringLiteral("pool records"), QStringLiteral("borrowed"), m_borrowed});
        report.postings.append(
            {QStringLiteral("pool records"), QStringLiteral("returned"), m_returned});
    }
    report.remarks.append(
        QStringLiteral("pool records: %1 borrowed, %2 returned").arg(m_borrowed).arg(m_returned));
    if (m_bad_rows > 0)
        report.remarks.append(QStringLiteral("bad rows skipped: %1").arg(m_bad_rows));
    report.faults = m_faults;
    return report;
}

void NetPlugin::start()
{
    m_player = std::thread([this] { play(); });
}

void NetPlugin::stop()
{
    {
        const std::lock_guard<std::mutex> locker(m_stop_mutex);
        m_stop = true;
    }
    m_stop_condition.notify_one();
}

// The exchange: an order comes in because it was put with the send-to-net flag.
void NetPlugin::RecvMsg(QString srcId, QVariant type, QVariant data)
{
    if (type.toInt() == lxclient::OrderType)
        fill(srcId, data.value<Order>());
    const QMutexLocker locker(&m_mutex);
    ++m_orders;
}

void NetPlugin::play()
{
    while (const auto timed = m_source->next()) {
        if (!waitUntilDue(timed->due_ms))
            break;
        putQuote(timed->quote);
    }
    m_ended = true;
}

// False: stop. The first quote is due at once and sets the clock for the others.
bool NetPlugin::waitUntilDue(qint64 dueMs)
{
    std::unique_lock<std::mutex> locker(m_stop_mutex);
    if (m_speed > 0) {
        if (!m_first_due_ms) {
            m_first_due_ms = dueMs;
            m_begin = Clock::now();
        }
        const std::chrono::duration<double, std::milli> played((dueMs - *m_first_due_ms) / m_speed);
        const auto due = m_begin + std::chrono::duration_cast<Clock::duration>(played);
        m_stop_condition.wait_until(locker, due, [this] { return m_stop; });
    }
    return !m_stop;
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
    PutQuotationMsg(m_id, new CMessageCommon(m_id, QString(), type, QVariant::fromValue(quote)));
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
    auto* const acknowledgement = new CMessageCommon(m_id, customer, lxclient::AcknowledgementType,
                                                     QVariant::fromValue(order));
    acknowledgement->setTraceId(order.trace_id);
    PutNetMsg(m_id, acknowledgement);

    const Execution filled{order, order.quantity > 0 ? last.ask : last.bid, last.time_ms};
    auto* const execution =
        new CMessageCommon(m_id, QString(), lxclient::ExecutionType, QVariant::fromValue(filled));
    execution->setTraceId(order.trace_id);
    PutNetMsg(m_id, execution);
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
