#include "SyntheticSession.h"

using lxclient::Decimal;
using lxclient::Quote;

namespace {

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
