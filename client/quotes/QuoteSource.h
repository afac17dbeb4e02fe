// QuoteSource: where quotes come from.
#ifndef LXCLIENT_QUOTESOURCE_H
#define LXCLIENT_QUOTESOURCE_H

#include <lxclient/Protocol.h>

#include <optional>

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

#endif
