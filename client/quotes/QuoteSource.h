// Where quotes come from: recordings, merged by time, or a synthetic session.
#ifndef LXCLIENT_QUOTESOURCE_H
#define LXCLIENT_QUOTESOURCE_H

#include <lxclient/Protocol.h>

#include <QFile>
#include <QStringList>

#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <vector>

// A quote with the time at which it is played: its own, or, where that is a step back, the latest
// before it. It never decreases within a source.
struct TimedQuote
{
    lxclient::Quote quote; // the sequence is for the player to set
    qint64 due_ms = 0;
};

// One thread at a time.
class QuoteSource
{
public:
    virtual ~QuoteSource() = default;

    // The next quote; nothing at the end.
    virtual std::optional<TimedQuote> next() = 0;
};

// Told of every row that is skipped: where ("FILE:LINE") and why.
using BadRowHandler = std::function<void(const QString& where, const QString& reason)>;

// Reads one recording from any device. A row that cannot be parsed is reported and skipped; empty
// lines are skipped silently.
class QuoteReader : public QuoteSource
{
public:
    // `device` is open, is not owned and outlives the reader; `name` is how messages call it.
    QuoteReader(QIODevice& device, QString name, BadRowHandler onBadRow);

    // Takes the first line. False: it is not the header of a recording. Called first.
    bool readHeader();

    std::optional<TimedQuote> next() override;

private:
    // A line without its end; nothing at the end, and an empty one with `tooLong` set if it exceeds
    // the limit.
    std::optional<QByteArray> readLine(bool& tooLong);

    QIODevice& m_device;
    const QString m_name;
    const BadRowHandler m_on_bad_row;
    int m_line = 0;
    std::optional<qint64> m_latest_ms;
};

// Several recordings as one, ordered by the time at which the quotes are played; quotes of the same
// time come in the order of the files.
class QuoteMerger : public QuoteSource
{
public:
    // Opens the files. Null: one is not a readable recording, `error` names it and says why.
    static std::unique_ptr<QuoteMerger> open(const QStringList& files, BadRowHandler onBadRow,
                                             QString& error);

    std::optional<TimedQuote> next() override;

private:
    struct Recording
    {
        std::unique_ptr<QFile> file;
        std::unique_ptr<QuoteReader> reader;
        std::optional<TimedQuote> head;
    };

    std::vector<Recording> m_recordings;
};

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

// The symbols of recordings in the order of their first quotes; bad rows are left to the player.
// Nothing: see QuoteMerger::open.
std::optional<QStringList> scanSymbols(const QStringList& files, QString& error);

#endif
