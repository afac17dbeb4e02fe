#include "ExchangeRole.h"

#include "Subjects.h"

#include <lxclient/Accounts.h>

#include <QDateTime>

#include <algorithm>

namespace counted = lxclient::counted;
using lxclient::Error;

namespace lxlink {

namespace {

constexpr qint64 QuotePatienceMs = 5000; // for the first quote of a symbol that is known
constexpr int AnswersPerAsk = 1000;

Letter letterOf(Letter::Kind kind, const Incoming& incoming)
{
    return {kind, QByteArray(incoming.subject), QByteArray(incoming.data, incoming.size),
            incoming.sequence, incoming.no_responders};
}

} // namespace

ExchangeRole::ExchangeRole(Connection& orders, Connection& quotes, Post& post, QString storeFile)
    : m_orders(orders)
    , m_post(post)
    , m_store_file(std::move(storeFile))
    , m_receiver(
          quotes, post,
          [this](const lxclient::Quote& quote) {
              const QMutexLocker locker(&m_mutex);
              m_quotes.insert(quote.symbol, quote);
          },
          [] { return false; })
{ }

Error ExchangeRole::open()
{
    if (const Error error = m_store.open(m_store_file))
        return error.about(QStringLiteral("--store"));
    m_executed = m_store.executed();
    m_refused = m_store.refused();
    const Error error = m_store.cursor(m_cursor);
    m_receiver.begin();
    m_receiver.read();
    return error;
}

void ExchangeRole::start()
{
    m_order_reader = std::make_unique<Reader>(
        m_orders,
        Reader::stream(
            AllOrders, OrderStream,
            [this](Connection& connection) -> quint64 {
                QString identity;
                quint64 last = 0;
                if (connection.streamIdentity(OrderStream, identity, last))
                    return 0;
                const QMutexLocker locker(&m_mutex);
                // made anew, or shorter than what was read: from its beginning, the key protects
                if (identity != m_cursor.stream || last < m_cursor.sequence)
                    m_cursor = {identity, 0};
                return m_cursor.sequence;
            },
            m_orders),
        [this](const Incoming& incoming) {
            m_post.letter(letterOf(Letter::Kind::Order, incoming));
        });
    m_ask_reader = std::make_unique<Reader>(
        m_orders, Reader::plain(AllAsks),
        [this](const Incoming& incoming) { m_post.letter(letterOf(Letter::Kind::Ask, incoming)); });
}

void ExchangeRole::finish()
{
    m_ask_reader.reset();
    m_order_reader.reset();
    m_receiver.end();
}

// The plugins of an exchange are told no quotes.
bool ExchangeRole::knowsSymbols(QVariantMap& settings) const
{
    settings.insert(lxclient::setting::Symbols, QStringList());
    return true;
}

void ExchangeRole::connected()
{
    const Error error = m_orders.ensureStream(OrderStream, AllOrders, false);
    m_has_stream = !error;
    if (error)
        m_post.warn(error.words());
}

void ExchangeRole::work(const Work& work)
{
    for (const Letter& letter : work.letters) {
        if (letter.kind == Letter::Kind::Ask) {
            answerAgain(letter);
        } else if (letter.kind == Letter::Kind::Order) {
            Waiting waiting{{}, letter.sequence, {}};
            waiting.since.start();
            Error error = read(letter.data.constData(), letter.data.size(), waiting.order);
            if (!error)
                error = check(waiting.order);
            if (!error && !isOwn(letter.subject, waiting.order))
                error = Error(QStringLiteral("is not what its subject says"));
            if (error)
                m_post.warn(error.about(QString::fromUtf8(letter.subject)).words());
            else
                m_waiting.append(waiting);
        }
    }
    if (!m_waiting.isEmpty())
        takeOrders();
}

void ExchangeRole::tick()
{
    if (!m_has_stream && m_orders.isConnected())
        connected();
    if (!m_waiting.isEmpty())
        takeOrders();
}

// In their order, up to the first that waits for a quote.
void ExchangeRole::takeOrders()
{
    const auto end = std::find_if(m_waiting.cbegin(), m_waiting.cend(),
                                  [this](const Waiting& waiting) { return mayWait(waiting); });
    QVector<Order> orders;
    Cursor cursor;
    {
        const QMutexLocker locker(&m_mutex);
        cursor = m_cursor;
    }
    for (auto waiting = m_waiting.cbegin(); waiting != end; ++waiting) {
        orders.append(waiting->order);
        cursor.sequence = waiting->sequence;
    }
    if (orders.isEmpty())
        return;
    crashPoint("orders-received");
    QVector<Answer> answers;
    if (const Error error = m_store.take(
            orders, cursor, [this](const Order& order) { return fill(order); }, answers)) {
        m_post.warn(error.words()); // they wait: the next tick tries again
        return;
    }
    m_waiting.erase(m_waiting.begin(), m_waiting.begin() + orders.size());
    {
        const QMutexLocker locker(&m_mutex);
        m_cursor = cursor;
        m_executed = m_store.executed();
        m_refused = m_store.refused();
    }
    crashPoint("orders-committed");
    publish(answers);
    crashPoint("answers-published");
}

bool ExchangeRole::mayWait(const Waiting& waiting) const
{
    const QString symbol = QString::fromStdString(waiting.order.symbol());
    {
        const QMutexLocker locker(&m_mutex);
        if (m_quotes.contains(symbol))
            return false;
    }
    const auto symbols = m_receiver.symbols();
    return (!symbols || symbols->contains(symbol)) && waiting.since.elapsed() < QuotePatienceMs;
}

ExchangeStore::Fill ExchangeRole::fill(const Order& order) const
{
    const QString symbol = QString::fromStdString(order.symbol());
    if (order.good_until_ms() < QDateTime::currentMSecsSinceEpoch()) {
        return {{},
                0,
                QStringLiteral("it came too late: it was good until %1")
                    .arg(QDateTime::fromMSecsSinceEpoch(order.good_until_ms(), Qt::UTC)
                             .toString(Qt::ISODate))};
    }
    const QMutexLocker locker(&m_mutex);
    const auto quote = m_quotes.constFind(symbol);
    if (quote == m_quotes.constEnd())
        return {{}, 0, QStringLiteral("the exchange has no quote of %1").arg(symbol)};
    return {order.quantity() > 0 ? quote->ask : quote->bid, quote->time_ms, QString()};
}

// One that does not arrive is asked for again.
void ExchangeRole::publish(const QVector<Answer>& answers)
{
    for (const Answer& answer : answers) {
        static_cast<void>(
            m_orders.publish(answerSubject(QString::fromStdString(answer.order().desk()),
                                           answer.exchange_epoch(), answer.number()),
                             answer.SerializeAsString()));
    }
}

void ExchangeRole::answerAgain(const Letter& letter)
{
    Ask ask;
    Error error = read(letter.data.constData(), letter.data.size(), ask);
    const QString desk = QString::fromStdString(ask.desk());
    if (!error && letter.subject != askSubject(desk))
        error = Error(QStringLiteral("is not what its subject says"));
    const quint64 from = ask.exchange_epoch() == m_store.epoch() ? ask.next_number() : 1;
    QVector<Answer> answers;
    if (!error)
        error = m_store.answersFrom(desk, from, AnswersPerAsk, answers);
    if (error)
        m_post.warn(error.about(QString::fromUtf8(letter.subject)).words());
    else
        publish(answers);
}

bool ExchangeRole::isOwn(const QByteArray& subject, const Order& order)
{
    return subject
        == orderSubject(QString::fromStdString(order.desk()), order.epoch(), order.order_id());
}

// A desk that is not known to have left may still have an order for us.
bool ExchangeRole::ended(const QVector<OtherClient>& others) const
{
    if (m_stopped)
        return true;
    bool anyDesk = false;
    for (const OtherClient& other : others) {
        if (other.role != QLatin1String("desk"))
            continue;
        anyDesk = true;
        if (!other.left)
            return false;
    }
    return anyDesk && m_receiver.isThrough();
}

void ExchangeRole::report(lxclient::Report& report) const
{
    quint64 executed = 0;
    quint64 refused = 0;
    const QMutexLocker locker(&m_mutex);
    for (auto desk = m_executed.constBegin(); desk != m_executed.constEnd(); ++desk) {
        const QString account = lxclient::account::linkedOrdersOf(desk.key());
        for (const QString& what : {counted::Received, counted::Acknowledged, counted::Executed})
            report.post(account, what, desk.value());
        executed += desk.value();
        refused += m_refused.value(desk.key());
    }
    report.messages = executed + refused;
    report.remarks.append(
        QStringLiteral("orders executed: %1, refused: %2").arg(executed).arg(refused));
}

} // namespace lxlink
