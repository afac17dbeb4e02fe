// Feeds the reader of recordings with whatever the fuzzer thinks of. It must not crash, and
//   - each line yields a quote, a complaint or, if it is empty, nothing;
//   - a quote is written as a row that is read back to the same quote;
//   - the times at which quotes are played never decrease.
#include <QuoteSource.h>
#include <QuoteText.h>

#include <QBuffer>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <limits>

namespace {

void require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

bool isSame(const lxclient::Decimal& a, const lxclient::Decimal& b)
{
    return a.units == b.units && a.decimals == b.decimals;
}

void requireReadsBack(const lxclient::Quote& quote)
{
    QString reason;
    const auto again = quotetext::parseRow(quotetext::formatRow(quote).trimmed(), reason);
    require(again && again->time_ms == quote.time_ms && again->symbol == quote.symbol
                && isSame(again->bid, quote.bid) && isSame(again->ask, quote.ask),
            "a quote reads back from the row that is written for it");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    QByteArray recording(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const int lines = recording.count('\n') + 1;
    QBuffer buffer(&recording);
    buffer.open(QIODevice::ReadOnly);
    int complaints = 0;
    QuoteReader reader(buffer, QStringLiteral("fuzz"),
                       [&](const QString& where, const QString& why) {
                           ++complaints;
                           require(where.startsWith(QLatin1String("fuzz:")) && !why.isEmpty(),
                                   "a complaint says where and why");
                       });
    reader.readHeader(); // the rows are worth reading under any header
    int quotes = 0;
    qint64 latest = std::numeric_limits<qint64>::min();
    while (const auto timed = reader.next()) {
        ++quotes;
        require(timed->due_ms >= latest && timed->due_ms >= timed->quote.time_ms,
                "the times of playing never decrease");
        latest = timed->due_ms;
        requireReadsBack(timed->quote);
    }
    require(quotes + complaints <= lines, "at most one quote or complaint a line");
    require(buffer.atEnd(), "everything has been read");
    return 0;
}
