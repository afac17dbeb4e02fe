#include "QuoteSource.h"

#include "QuoteText.h"

#include <QFileInfo>

#include <algorithm>
#include <utility>

using lxclient::Decimal;
using lxclient::Quote;

namespace {

constexpr int MaxLineBytes = 4096;

struct Pair
{
    const char* symbol;
    qint64 start_units;
    int decimals;
    int half_spread_units;
};

constexpr Pair pairs[] = {
    {"EUR/USD", 109512, 5, 6},
    {"GBP/USD", 127340, 5, 9},
    {"USD/JPY", 141036, 3, 7},
};

constexpr qint64 sessionStartMs = 1704182400000; // 2024-01-02T08:00:00.000Z

} // namespace

QuoteReader::QuoteReader(QIODevice& device, QString name, BadRowHandler onBadRow)
    : m_device(device)
    , m_name(std::move(name))
    , m_on_bad_row(std::move(onBadRow))
{ }

bool QuoteReader::readHeader()
{
    bool tooLong = false;
    QByteArray line = readLine(tooLong).value_or(QByteArray());
    if (line.startsWith("\xEF\xBB\xBF")) // the byte order mark that some editors leave
        line.remove(0, 3);
    return line == quotetext::Header;
}

std::optional<TimedQuote> QuoteReader::next()
{
    bool tooLong = false;
    while (const auto line = readLine(tooLong)) {
        if (line->isEmpty() && !tooLong)
            continue;
        QString reason = QStringLiteral("longer than %1 bytes").arg(MaxLineBytes);
        const auto quote = tooLong ? std::nullopt : quotetext::parseRow(*line, reason);
        if (quote) {
            m_latest_ms = std::max(m_latest_ms.value_or(quote->time_ms), quote->time_ms);
            return TimedQuote{*quote, *m_latest_ms};
        }
        m_on_bad_row(QStringLiteral("%1:%2").arg(m_name).arg(m_line), reason);
    }
    return {};
}

std::optional<QByteArray> QuoteReader::readLine(bool& tooLong)
{
    tooLong = false;
    QByteArray line = m_device.readLine(MaxLineBytes + 1);
    if (line.isEmpty())
        return {};
    ++m_line;
    while (!line.endsWith('\n')) {
        const QByteArray more = m_device.readLine(MaxLineBytes + 1);
        if (more.isEmpty())
            break;
        tooLong = true;
        line = more;
    }
    return tooLong ? QByteArray() : line.trimmed();
}

std::unique_ptr<QuoteMerger> QuoteMerger::open(const QStringList& files, BadRowHandler onBadRow,
                                               QString& error)
{
    auto merger = std::make_unique<QuoteMerger>();
    for (const QString& name : files) {
        auto file = std::make_unique<QFile>(name);
        if (QFileInfo::exists(name) && !QFileInfo(name).isFile()) {
            error = QStringLiteral("%1: is not a file; a recording is read twice").arg(name);
            return nullptr;
        }
        if (!file->open(QIODevice::ReadOnly)) {
            error = QStringLiteral("%1: cannot be read: %2").arg(name, file->errorString());
            return nullptr;
        }
        auto reader = std::make_unique<QuoteReader>(*file, name, onBadRow);
        if (!reader->readHeader()) {
            error = QStringLiteral("%1: is no recording, its first line is not \"%2\"")
                        .arg(name, QString::fromLatin1(quotetext::Header));
            return nullptr;
        }
        auto head = reader->next();
        merger->m_recordings.push_back({std::move(file), std::move(reader), std::move(head)});
    }
    return merger;
}

std::optional<TimedQuote> QuoteMerger::next()
{
    Recording* earliest = nullptr;
    for (Recording& recording : m_recordings) {
        if (recording.head && (!earliest || recording.head->due_ms < earliest->head->due_ms))
            earliest = &recording;
    }
    if (!earliest)
        return {};
    return std::exchange(earliest->head, earliest->reader->next());
}

SyntheticSession::SyntheticSession(quint64 seed, int quotes)
    : m_engine(seed)
    , m_left(quotes)
    , m_time_ms(sessionStartMs)
{
    for (const Pair& pair : pairs)
        m_markets.push_back({pair.start_units});
}

QStringList SyntheticSession::symbols()
{
    QStringList symbols;
    for (const Pair& pair : pairs)
        symbols.append(QLatin1String(pair.symbol));
    return symbols;
}

// A random walk that leans to one side for some thousand quotes at a time, so that there are trends
// to follow, and back to the start when it has gone far.
std::optional<TimedQuote> SyntheticSession::next()
{
    if (m_left-- <= 0)
        return {};
    const int index = random(static_cast<int>(m_markets.size()));
    const Pair& pair = pairs[index];
    Market& market = m_markets[static_cast<std::size_t>(index)];

    if (random(4000) == 0)
        market.drift = random(3) - 1;
    const qint64 strayed = market.mid_units - pair.start_units;
    if (qAbs(strayed) > pair.start_units / 50)
        market.drift = strayed > 0 ? -1 : 1;
    market.mid_units += random(7) - 3 + (random(16) == 0 ? market.drift : 0);
    const int halfSpread = pair.half_spread_units + random(4);
    m_time_ms += 20 + random(160);

    Quote quote;
    quote.symbol = QLatin1String(pair.symbol);
    quote.time_ms = m_time_ms;
    quote.bid = Decimal{market.mid_units - halfSpread, pair.decimals};
    quote.ask = Decimal{market.mid_units + halfSpread, pair.decimals};
    return TimedQuote{quote, m_time_ms};
}

std::optional<QStringList> scanSymbols(const QStringList& files, QString& error)
{
    const auto source = QuoteMerger::open(
        files, [](const QString&, const QString&) {}, error);
    if (!source)
        return {};
    QStringList symbols;
    while (const auto timed = source->next()) {
        if (!symbols.contains(timed->quote.symbol))
            symbols.append(timed->quote.symbol);
    }
    return symbols;
}
