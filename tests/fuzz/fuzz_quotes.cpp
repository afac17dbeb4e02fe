// Feeds the reader of recordings with whatever the fuzzer thinks of. It must not crash, must get to
// the end, and keep what is required below.
#include <QuoteText.h>
#include <Recordings.h>

#include <QBuffer>

#include <cstdint>
#include <limits>

namespace {

void require(bool holds, const char* what)
{
    if (!holds)
        qFatal("does not hold: %s", what);
}

// Reads back from the row that is written for it.
bool readsBack(const lxclient::Quote& quote)
{
    const auto isSame = [](const lxclient::Decimal& a, const lxclient::Decimal& b) {
        return a.units == b.units && a.decimals == b.decimals;
    };
    lxclient::Quote again;
    return !quotetext::parseRow(quotetext::formatRow(quote).trimmed(), again)
        && again.time_ms == quote.time_ms && again.symbol == quote.symbol
        && isSame(again.bid, quote.bid) && isSame(again.ask, quote.ask);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    QByteArray recording(reinterpret_cast<const char*>(data), static_cast<int>(size));
    const int lines = recording.count('\n') + 1;
    QBuffer buffer(&recording);
    buffer.open(QIODevice::ReadOnly);
    int complaints = 0;
    const auto complain = [&](const QString& where, const QString& why) {
        ++complaints;
        require(where.startsWith("fuzz:") && !why.isEmpty(), "a complaint says where and why");
    };
    QuoteReader reader(buffer, "fuzz", complain);
    reader.readHeader(); // the rows are worth reading under any header
    int quotes = 0;
    qint64 latest = std::numeric_limits<qint64>::min();
    while (const auto timed = reader.next()) {
        ++quotes;
        require(timed->due_ms >= latest && timed->due_ms >= timed->quote.time_ms,
                "the times of playing never decrease");
        latest = timed->due_ms;
        require(readsBack(timed->quote), "a quote reads back from its row");
    }
    require(quotes + complaints <= lines, "at most one quote or complaint a line");
    require(buffer.atEnd(), "everything has been read");
    return 0;
}
