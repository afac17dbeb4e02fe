#include "FeedRole.h"

#include "Subjects.h"

#include <lxclient/Accounts.h>

#include <QDateTime>

#include <chrono>

namespace lxlink {

FeedRole::FeedRole(Connection& quotes, Post& post, std::unique_ptr<QuoteSource> source,
                   QStringList symbols, double speed, std::optional<double> skipGapsS)
    : m_quotes(quotes)
    , m_post(post)
    , m_symbols(std::move(symbols))
    , m_epoch(static_cast<quint64>(QDateTime::currentMSecsSinceEpoch()))
    , m_source(std::move(source))
    , m_pacer(speed, skipGapsS)
{
    for (const QString& symbol : m_symbols)
        m_lines.insert(symbol, {});
}

FeedRole::~FeedRole()
{
    finish();
}

void FeedRole::start()
{
    m_player = std::thread([this] { play(); });
}

void FeedRole::finish()
{
    m_pacer.stop();
    if (m_player.joinable())
        m_player.join();
}

void FeedRole::play()
{
    while (const auto timed = m_source->next()) {
        if (!m_pacer.waitUntilDue(timed->due_ms))
            break;
        const lxclient::Quote& quote = timed->quote;
        std::string data;
        {
            const QMutexLocker locker(&m_mutex);
            Line& line = m_lines[quote.symbol];
            line.changed = true;
            line.last.set_major(Major);
            line.last.set_epoch(m_epoch);
            line.last.set_sequence(line.last.sequence() + 1);
            line.last.set_symbol(quote.symbol.toStdString());
            line.last.set_time_ms(quote.time_ms);
            set(*line.last.mutable_bid(), quote.bid);
            set(*line.last.mutable_ask(), quote.ask);
            line.last.set_sent_ns(
                static_cast<quint64>(std::chrono::steady_clock::now().time_since_epoch().count()));
            line.last.SerializeToString(&data);
        }
        // without a connection it is a gap, which the last value heals
        static_cast<void>(m_quotes.publish(quoteSubject(quote.symbol), data));
    }
    m_played = true;
}

// A memory stream goes with the server, so that it is made and filled anew.
void FeedRole::connected()
{
    const lxclient::Error error = m_quotes.ensureStream(LastStream, AllLast, true);
    m_has_stream = !error;
    if (error) {
        m_post.warn(error.words());
        return;
    }
    Directory directory;
    stamp(directory);
    directory.set_epoch(m_epoch);
    for (const QString& symbol : m_symbols)
        directory.add_symbols(symbol.toStdString());
    static_cast<void>(m_quotes.publish(SymbolsSubject, directory.SerializeAsString()));
    {
        const QMutexLocker locker(&m_mutex);
        for (Line& line : m_lines)
            line.changed = line.last.sequence() > 0;
    }
    publishLast();
}

void FeedRole::tick()
{
    if (!m_quotes.isConnected())
        return;
    if (!m_has_stream)
        connected();
    const bool played = m_played; // read first: then these are the last ones
    publishLast();
    if (!played || m_told_end)
        return;
    End end;
    stamp(end);
    end.set_epoch(m_epoch);
    {
        const QMutexLocker locker(&m_mutex);
        for (auto line = m_lines.constBegin(); line != m_lines.constEnd(); ++line)
            (*end.mutable_quotes())[line.key().toStdString()] = line->last.sequence();
    }
    m_told_end = !m_quotes.publishStored(EndSubject, end.SerializeAsString());
}

void FeedRole::publishLast()
{
    QVector<QPair<QString, std::string>> changed;
    {
        const QMutexLocker locker(&m_mutex);
        for (auto line = m_lines.begin(); line != m_lines.end(); ++line) {
            if (std::exchange(line->changed, false))
                changed.append({line.key(), line->last.SerializeAsString()});
        }
    }
    for (const auto& [symbol, data] : qAsConst(changed)) {
        if (m_quotes.publish(lastSubject(symbol), data)) { // again, with the next tick
            const QMutexLocker locker(&m_mutex);
            m_lines[symbol].changed = true;
        }
    }
}

void FeedRole::report(lxclient::Report& report) const
{
    quint64 all = 0;
    const QMutexLocker locker(&m_mutex);
    for (auto line = m_lines.constBegin(); line != m_lines.constEnd(); ++line) {
        all += line->last.sequence();
        report.postOneSided(lxclient::account::BetweenProcesses + QStringLiteral("quotes of ")
                                + line.key(),
                            line->last.sequence());
    }
    report.remarks.append(QStringLiteral("quotes published: %1").arg(all));
    if (m_pacer.gapsSkipped() > 0)
        report.remarks.append(QStringLiteral("gaps skipped: %1").arg(m_pacer.gapsSkipped()));
}

} // namespace lxlink
