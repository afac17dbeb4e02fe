#include "DeskRole.h"

#include "Subjects.h"

#include <lxbase/BusMonitor.h>
#include <lxclient/Accounts.h>

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <utility>

namespace account = lxclient::account;
namespace counted = lxclient::counted;
namespace setting = lxclient::setting;
using lxclient::Error;

namespace lxlink {

namespace {

constexpr qint64 AgainMs = 1000;  // without an answer, it is asked for
constexpr qint64 SettleMs = 1000; // so long plugins have to keep what they want to keep
constexpr quint64 MaxUnderWay = 50'000;

// Of the fullest inbox, with what may still come from the list of the quotations.
bool isCrowded()
{
    const BusStatistics bus = CBusMonitor::statistics();
    quint64 most = 0;
    for (const InboxStatistics& inbox : bus.inboxes)
        most = qMax(most, inbox.put - inbox.handled - inbox.dropped - inbox.superseded);
    return most + bus.quotationList.put - bus.quotationList.handled > MaxUnderWay;
}

} // namespace

DeskRole::DeskRole(Connection& orders, Connection& quotes, Post& post, Settings settings)
    : m_orders(orders)
    , m_post(post)
    , m_settings(std::move(settings))
    , m_receiver(
          quotes, post, [&post](const lxclient::Quote& quote) { post.putQuote(quote); }, isCrowded)
{ }

Error DeskRole::open()
{
    if (const Error error = m_store.open(m_settings.store_file))
        return error.about(QStringLiteral("--store"));
    if (const Error error = m_store.cursor(m_cursor))
        return error;
    QVector<OutboxEntry> open;
    if (const Error error = m_store.openOrders(open))
        return error;
    for (const OutboxEntry& entry : qAsConst(open)) {
        Sent& sent = m_sent[entry.order.order_id];
        sent.entry = entry;
        sent.since.start();
    }
    if (const Error error = m_store.unsettled(m_left))
        return error;
    m_counts = m_store.counts();
    m_settled.start();
    m_asked.start();
    m_receiver.read();
    return {};
}

// Quotes wait for this in the stream, answers in the store.
void DeskRole::start()
{
    m_receiver.begin();
    m_receipt_reader = std::make_unique<Reader>(
        m_orders, Reader::plain(m_settings.inbox + ".*"), [this](const Incoming& incoming) {
            m_post.letter({Letter::Kind::Receipt, QByteArray(incoming.subject),
                           QByteArray(incoming.data, incoming.size), 0, incoming.no_responders});
        });
    const QByteArray stream = answerStream(m_settings.desk);
    m_answer_reader = std::make_unique<Reader>(
        m_orders,
        Reader::stream(
            allAnswers(m_settings.desk), stream,
            [this, stream](Connection& connection) -> quint64 {
                QString identity;
                quint64 last = 0;
                if (connection.streamIdentity(stream, identity, last))
                    return 0;
                const QMutexLocker locker(&m_mutex);
                if (identity != m_cursor.stream || last < m_cursor.sequence)
                    m_cursor = {identity, 0};
                return m_cursor.sequence;
            },
            m_orders),
        [this](const Incoming& incoming) {
            m_post.letter({Letter::Kind::Answer, QByteArray(incoming.subject),
                           QByteArray(incoming.data, incoming.size), incoming.sequence,
                           incoming.no_responders});
        });
}

void DeskRole::finish()
{
    m_answer_reader.reset();
    m_receipt_reader.reset();
    m_receiver.end();
    // an orderly end: the plugins have kept all that they were given
    m_to_settle += std::exchange(m_settling, {});
    settle();
}

bool DeskRole::knowsSymbols(QVariantMap& settings) const
{
    const auto symbols = m_receiver.symbols();
    if (!symbols)
        return false;
    settings.insert(setting::Symbols, *symbols);
    settings.insert(setting::FirstOrder, m_store.firstOrder());
    return true;
}

void DeskRole::connected()
{
    const Error error =
        m_orders.ensureStream(answerStream(m_settings.desk), allAnswers(m_settings.desk), false);
    m_has_stream = !error;
    if (error)
        m_post.warn(error.words());
    if (!m_receipt_reader)
        return; // start comes first: the answers are for plugins
    for (Sent& sent : m_sent) {
        sent.has_receipt = false;
        publish(sent);
    }
    ask();
}

void DeskRole::work(const Work& work)
{
    if (!work.orders.isEmpty())
        takeOrders(work.orders);
    for (const QByteArray& subject : work.refused)
        takeRefusal(subject);
    QVector<Letter> answers;
    for (const Letter& letter : work.letters) {
        if (letter.kind == Letter::Kind::Answer)
            answers.append(letter);
        else if (letter.kind == Letter::Kind::Receipt)
            takeReceipt(letter);
    }
    if (!answers.isEmpty())
        takeAnswers(answers);
    noteFigures();
}

void DeskRole::tick()
{
    if (m_receipt_reader && !m_left.isEmpty())
        giveBack(std::exchange(m_left, {}));
    if (!m_has_stream && m_orders.isConnected())
        connected();
    if (m_orders.isConnected() && m_asked.hasExpired(AgainMs) && m_receipt_reader) {
        bool late = m_store.hasGap();
        for (Sent& sent : m_sent) {
            if (!sent.published.isValid() || sent.published.hasExpired(AgainMs)) {
                late = true;
                if (!sent.has_receipt)
                    publish(sent);
            }
        }
        if (late)
            ask();
    }
    if (m_settled.hasExpired(SettleMs))
        settle();
    noteFigures();
}

// All that have come in one transaction; where that fails they are refused, with the reason.
void DeskRole::takeOrders(const QVector<PutOrder>& orders)
{
    const qint64 goodUntilMs = QDateTime::currentMSecsSinceEpoch() + m_settings.good_for_ms;
    QVector<OutboxEntry> entries;
    for (const PutOrder& put : orders)
        entries.append({put.order, put.sender, goodUntilMs});
    if (const Error error = m_store.add(entries)) {
        m_post.warn(error.words());
        for (const PutOrder& put : orders)
            reject(put.sender, put.order, error.words());
        return;
    }
    {
        const QMutexLocker locker(&m_mutex);
        m_accepted += static_cast<quint64>(entries.size());
    }
    crashPoint("outbox-committed");
    for (const OutboxEntry& entry : qAsConst(entries)) {
        Sent& sent = m_sent[entry.order.order_id];
        sent.entry = entry;
        sent.since.start();
        publish(sent);
        crashPoint("published");
    }
}

void DeskRole::takeAnswers(const QVector<Letter>& letters)
{
    QVector<Answer> answers;
    Cursor cursor;
    {
        const QMutexLocker locker(&m_mutex);
        cursor = m_cursor;
    }
    for (const Letter& letter : letters) {
        Answer answer;
        Error error = read(letter.data.constData(), letter.data.size(), answer);
        if (!error)
            error = check(answer.order());
        if (!error && QString::fromStdString(answer.order().desk()) != m_settings.desk)
            error = Error(QStringLiteral("is for another desk"));
        if (error)
            m_post.warn(error.about(QString::fromUtf8(letter.subject)).words());
        else
            answers.append(answer);
        cursor.sequence = letter.sequence;
    }
    crashPoint("acknowledged-unstored");
    QVector<Returned> returned;
    if (const Error error = m_store.receive(answers, cursor, returned)) {
        m_post.warn(error.words()); // they are asked for again
        return;
    }
    crashPoint("acknowledged-stored");
    {
        const QMutexLocker locker(&m_mutex);
        m_cursor = cursor;
    }
    giveBack(returned);
}

// From the server's store: it has the order, or why not. What is missing is published again.
void DeskRole::takeReceipt(const Letter& letter)
{
    const auto sent = m_sent.find(letter.subject.mid(m_settings.inbox.size() + 1).toULongLong());
    if (sent == m_sent.end() || letter.no_responders)
        return;
    const QJsonObject receipt = QJsonDocument::fromJson(letter.data).object();
    const QJsonObject error = receipt.value(QStringLiteral("error")).toObject();
    constexpr int HasItAlready = 10077; // of this subject it takes no second one
    sent->has_receipt =
        error.isEmpty() || error.value(QStringLiteral("err_code")).toInt() == HasItAlready;
    if (!sent->has_receipt) {
        m_post.warn(QStringLiteral("the server does not take orders: %1")
                        .arg(error.value(QStringLiteral("description")).toString()));
    }
}

void DeskRole::takeRefusal(const QByteArray& subject)
{
    QVector<Returned> returned;
    for (auto sent = m_sent.cbegin(); sent != m_sent.cend(); ++sent) {
        if (subject != orderSubject(m_settings.desk, m_store.epoch(), sent.key()))
            continue;
        if (const Error error = m_store.refuse(
                sent.key(), QStringLiteral("the server does not permit this user to send it"),
                returned))
            m_post.warn(error.words());
        break;
    }
    if (returned.isEmpty())
        m_post.warn(QStringLiteral("the server does not permit to publish to %1")
                        .arg(QString::fromUtf8(subject)));
    giveBack(returned);
}

void DeskRole::publish(Sent& sent)
{
    const lxclient::Order& from = sent.entry.order;
    Order order;
    stamp(order);
    order.set_desk(m_settings.desk.toStdString());
    order.set_epoch(m_store.epoch());
    order.set_order_id(from.order_id);
    order.set_trace_id(from.trace_id.toStdString());
    order.set_symbol(from.symbol.toStdString());
    order.set_quantity(from.quantity);
    order.set_good_until_ms(sent.entry.good_until_ms);
    const QByteArray subject = orderSubject(m_settings.desk, m_store.epoch(), from.order_id);
    if (!m_orders.publish(subject, order.SerializeAsString(),
                          m_settings.inbox + '.' + QByteArray::number(from.order_id), subject))
        sent.published.start();
}

void DeskRole::ask()
{
    Ask ask;
    stamp(ask);
    ask.set_desk(m_settings.desk.toStdString());
    ask.set_exchange_epoch(m_store.exchangeEpoch());
    ask.set_next_number(m_store.nextNumber());
    static_cast<void>(m_orders.publish(askSubject(m_settings.desk), ask.SerializeAsString()));
    m_asked.start();
}

// To who has put the order, and the execution to everybody who subscribed.
void DeskRole::giveBack(const QVector<Returned>& returned)
{
    for (const Returned& answer : returned) {
        const lxclient::Order& order = answer.execution.order;
        const bool isCarried = order.order_id < m_store.firstOrder();
        const bool isRefused = !answer.refusal.isEmpty();
        const auto sent = m_sent.find(order.order_id);
        const qint64 roundTripUs =
            sent == m_sent.end() || isCarried ? -1 : sent->since.nsecsElapsed() / 1000;
        m_sent.remove(order.order_id);
        m_to_settle.append(order.order_id);
        {
            const QMutexLocker locker(&m_mutex);
            if (isCarried && !isRefused)
                ++m_carried;
            if (!isCarried && isRefused)
                ++m_taken_back;
            if (!isRefused)
                ++m_returned;
            if (roundTripUs >= 0)
                m_round_trip_us = roundTripUs;
        }
        if (isRefused) {
            reject(answer.sender, order, answer.refusal);
            continue;
        }
        m_post.putNet(answer.sender, lxclient::AcknowledgementType, QVariant::fromValue(order),
                      order.trace_id);
        m_post.putNet(QString(), lxclient::ExecutionType, QVariant::fromValue(answer.execution),
                      order.trace_id);
    }
}

void DeskRole::reject(const QString& sender, const lxclient::Order& order, const QString& reason)
{
    {
        const QMutexLocker locker(&m_mutex);
        ++m_rejected;
    }
    m_post.putNet(sender, lxclient::OrderRejectedType,
                  QVariant::fromValue(lxclient::OrderRejection{order, reason}), order.trace_id);
}

// Two steps, so that what was given to the plugins a moment ago is not settled yet.
void DeskRole::settle()
{
    m_settled.start();
    if (!m_settling.isEmpty()) {
        if (const Error error = m_store.settle(m_settling)) {
            m_post.warn(error.words());
            return;
        }
    }
    m_settling = std::exchange(m_to_settle, {});
    if (!m_answer_reader && !m_settling.isEmpty()) // at the end
        static_cast<void>(m_store.settle(std::exchange(m_settling, {})));
}

void DeskRole::noteFigures()
{
    const QMutexLocker locker(&m_mutex);
    m_counts = m_store.counts();
}

bool DeskRole::ended(const QVector<OtherClient>&) const
{
    const QMutexLocker locker(&m_mutex);
    return m_stopped || (m_receiver.isThrough() && m_counts.open == 0);
}

void DeskRole::report(lxclient::Report& report) const
{
    m_receiver.post(report);
    const QMutexLocker locker(&m_mutex);
    report.messages = m_accepted + m_rejected - m_taken_back;
    report.post(account::Orders, counted::Received, m_accepted + m_carried - m_taken_back);
    report.post(account::Orders, counted::Acknowledged, m_returned);
    report.post(account::Orders, counted::Executed, m_returned);
    report.post(account::RejectedOrders, counted::Put, m_rejected);
    const QString linked = account::linkedOrdersOf(m_settings.desk);
    report.post(linked, counted::Put, m_counts.put);
    report.post(linked, counted::Acknowledged, m_counts.answered);
    report.post(linked, counted::Executed, m_counts.answered);
    report.remarks.append(QStringLiteral("outbox: %1").arg(m_counts.open));
    if (m_carried > 0)
        report.remarks.append(QStringLiteral("of earlier sessions: %1").arg(m_carried));
    if (m_receiver.missed() > 0)
        report.remarks.append(QStringLiteral("quotes missed: %1").arg(m_receiver.missed()));
    if (m_round_trip_us >= 0)
        report.remarks.append(QStringLiteral("last round trip: %1 us").arg(m_round_trip_us));
}

void DeskRole::describe(lxclient::LinkState& state) const
{
    state.quote_age_ms = m_receiver.ageMs();
    state.quotes_missed = m_receiver.missed();
    const QMutexLocker locker(&m_mutex);
    state.outbox = m_counts.open;
    state.round_trip_us = m_round_trip_us;
}

} // namespace lxlink
