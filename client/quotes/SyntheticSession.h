// SyntheticSession: quotes that are made up.
#ifndef LXCLIENT_SYNTHETICSESSION_H
#define LXCLIENT_SYNTHETICSESSION_H

#include "QuoteSource.h"

#include <QStringList>

#include <random>
#include <vector>

// A made-up trading session of a few currency pairs, the same for the same seed everywhere.
class SyntheticSession : public QuoteSource
{
public:
    SyntheticSession(quint64 seed, int quotes);

    static QStringList symbols();

    std::optional<TimedQuote> next() override;

private:
    struct Market
    {
        qint64 mid_units;
        int drift = 0; // units per quote, to one side for a while
    };

    // The standard fixes what the engine yields, not what its distributions make of it.
    int random(int below) { return static_cast<int>(m_engine() % static_cast<quint64>(below)); }

    std::mt19937_64 m_engine;
    int m_left;
    qint64 m_time_ms;
    std::vector<Market> m_markets;
};

#endif
