#include "QuoteReceiver.h"

#include "Subjects.h"

#include <lxclient/Accounts.h>

#include <algorithm>
#include <chrono>
#include <utility>

namespace lxlink {

namespace {

constexpr quint64 QuotesPerLook = 512;

qint64 nowNs()
{
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

} // namespace

QuoteReceiver::QuoteReceiver(Connection& connection, Post& post, Deliver deliver,
                             std::function<bool()> crowded)
    : m_connection(connection)
    , m_post(post)
    , m_deliver(std::move(deliver))
    , m_crowded(std::move(crowded))
{ }

// The quotes first: what comes between the two is then not missed.
void QuoteReceiver::read()
{
    m_quotes = std::make_unique<Reader>(
        m_connection, Reader::plain(AllQuotes),
        [this](const Incoming& incoming) { takeQuote(incoming); }, std::chrono::milliseconds(20),
        [this] { idle(); });
    m_last = std::make_unique<Reader>(m_connection, Reader::lastOfEach(AllLast, LastStream),
                                      [this](const Incoming& incoming) { takeLast(incoming); });
}

void QuoteReceiver::end()
{
    m_last.reset();
    m_quotes.reset();
}

std::optional<QStringList> QuoteReceiver::symbols() const
{
    const QMutexLocker locker(&m_mutex);
    return m_symbols;
}

qint64 QuoteReceiver::ageMs() const
{
    const qint64 last = m_last_ns;
    return last == 0 ? -1 : (nowNs() - last) / 1'000'000;
}

void QuoteReceiver::post(lxclient::Report& report) const
{
    const QMutexLocker locker(&m_mutex);
    for (const auto& [symbol, total] : m_totals) {
        report.postOneSided(
            lxclient::account::BetweenProcesses + QStringLiteral("quotes of ") + symbol, total);
    }
}

void QuoteReceiver::takeQuote(const Incoming& incoming)
{
    Quote quote;
    lxclient::Error error = lxlink::read(incoming.data, incoming.size, quote);
    if (!error)
        error = check(quote);
    if (error)
        m_post.warn(error.about(QString::fromUtf8(incoming.subject)).words());
    else
        take(quote);
    if (++m_taken % QuotesPerLook == 0)
        flush();
}

void QuoteReceiver::takeLast(const Incoming& incoming)
{
    const QByteArray subject(incoming.subject);
    lxclient::Error error;
    if (subject == SymbolsSubject) {
        Directory directory;
        error = lxlink::read(incoming.data, incoming.size, directory);
        if (!error) {
            QStringList symbols;
            for (const std::string& symbol : directory.symbols())
                symbols.append(QString::fromStdString(symbol));
            symbols.sort();
            const QMutexLocker locker(&m_mutex);
            if (directory.epoch() >= m_directory_epoch) {
                m_directory_epoch = directory.epoch();
                m_symbols = symbols;
            }
        }
    } else if (subject == EndSubject) {
        End end;
        error = lxlink::read(incoming.data, incoming.size, end);
        const QMutexLocker locker(&m_mutex);
        if (!error && end.epoch() >= m_directory_epoch)
            m_end = end;
    } else {
        Quote quote;
        error = lxlink::read(incoming.data, incoming.size, quote);
        if (!error)
            error = check(quote);
        const QMutexLocker locker(&m_mutex);
        if (!error)
            m_from_last.append(quote);
    }
    if (error)
        m_post.warn(error.about(QString::fromUtf8(subject)).words());
}

// On the quote thread, as are the following.
void QuoteReceiver::take(const Quote& quote)
{
    if (!m_begun || quote.epoch() < m_epoch)
        return;
    m_epoch = quote.epoch();
    Line& line = m_lines[quote.symbol()];
    if (quote.epoch() == line.epoch && quote.sequence() <= line.sequence)
        return;
    m_last_ns = nowNs();
    if (m_is_crowded) {
        Quote& held = m_held[quote.symbol()];
        if (std::make_pair(held.epoch(), held.sequence())
            < std::make_pair(quote.epoch(), quote.sequence()))
            held = quote;
        return;
    }
    if (quote.epoch() != line.epoch)
        line = {quote.epoch(), 0, line.delivered};
    m_missed += quote.sequence() - line.sequence - 1;
    line.sequence = quote.sequence();
    ++m_received;
    lxclient::Quote delivered;
    delivered.symbol = QString::fromStdString(quote.symbol());
    delivered.sequence = ++line.delivered;
    delivered.time_ms = quote.time_ms();
    delivered.bid = decimalOf(quote.bid());
    delivered.ask = decimalOf(quote.ask());
    m_deliver(delivered);
}

// Takes over what the stream has brought, and gives on what was held when there is room again.
void QuoteReceiver::flush()
{
    if (!m_begun)
        return;
    m_is_crowded = m_crowded();
    if (!m_is_crowded && !m_held.empty()) {
        const auto held = std::exchange(m_held, {});
        for (const auto& [symbol, quote] : held)
            take(quote);
    }
    QVector<Quote> last;
    {
        const QMutexLocker locker(&m_mutex);
        last.swap(m_from_last);
    }
    for (const Quote& quote : qAsConst(last))
        take(quote);
}

void QuoteReceiver::idle()
{
    flush();
    if (!m_is_crowded)
        closeBooks();
}

// Nothing waits to be read any more, and the end was published behind all quotes: what has not come
// by now does not come.
void QuoteReceiver::closeBooks()
{
    QMutexLocker locker(&m_mutex);
    if (!m_begun || m_through || !m_end || !m_from_last.isEmpty() || m_end->epoch() < m_epoch)
        return;
    for (const auto& [symbol, total] : m_end->quotes()) {
        const Line& line = m_lines[symbol];
        const quint64 seen = line.epoch == m_end->epoch() ? line.sequence : 0;
        if (total > seen)
            m_missed += total - seen;
        m_totals.append({QString::fromStdString(symbol), std::max<quint64>(total, seen)});
    }
    m_through = true;
}

} // namespace lxlink
