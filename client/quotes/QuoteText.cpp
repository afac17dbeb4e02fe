#include "QuoteText.h"

#include <QDateTime>

#include <algorithm>

using lxclient::Decimal;
using lxclient::Error;
using lxclient::Quote;

namespace {

constexpr int MaxSymbolLength = 32;

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

// As text that is safe in a message: whatever the row held.
QString shown(const QByteArray& field)
{
    QString text = QString::fromUtf8(field.left(MaxSymbolLength));
    std::replace_if(
        text.begin(), text.end(), [](QChar c) { return !c.isPrint(); }, QLatin1Char('?'));
    return QLatin1Char('"') + text + QLatin1Char('"');
}

// What keeps a symbol from standing in a table and in a recording; null if nothing does.
const char* flawOf(const QString& symbol)
{
    if (symbol.isEmpty())
        return "is empty";
    if (symbol.size() > MaxSymbolLength)
        return "is longer than 32 characters";
    if (symbol.contains(QLatin1Char('"')))
        return "is quoted; fields are written without quotation marks";
    const bool readable = std::all_of(symbol.begin(), symbol.end(), [](QChar c) {
        return c.isPrint() && c != QChar::ReplacementCharacter;
    });
    return readable ? nullptr : "holds characters that cannot be shown";
}

} // namespace

Error quotetext::parseRow(const QByteArray& row, Quote& quote)
{
    const QList<QByteArray> fields = row.split(',');
    if (fields.size() != 4)
        return Error(QStringLiteral("4 fields expected, %1 found").arg(fields.size()));
    const auto time = parseTime(fields[0].trimmed());
    if (!time) {
        return Error(QStringLiteral("timestamp %1 is not of the form 2020-01-31T17:00:00.065Z")
                         .arg(shown(fields[0])));
    }
    const QString symbol = QString::fromUtf8(fields[1].trimmed());
    if (const char* flaw = flawOf(symbol))
        return Error(QStringLiteral("symbol %1 %2").arg(shown(fields[1]), QLatin1String(flaw)));
    const auto bid = parseDecimal(fields[2].trimmed());
    const auto ask = parseDecimal(fields[3].trimmed());
    if (!bid || !ask) {
        return Error(QStringLiteral("%1 %2 is not a price such as 1.121200")
                         .arg(QLatin1String(bid ? "ask" : "bid"), shown(fields[bid ? 3 : 2])));
    }
    quote = {symbol, 0, *time, *bid, *ask};
    return {};
}

QByteArray quotetext::formatRow(const Quote& quote)
{
    return formatTime(quote.time_ms) + ',' + quote.symbol.toUtf8() + ','
        + quote.bid.toString().toLatin1() + ',' + quote.ask.toString().toLatin1() + '\n';
}

// By position and without the framework's general parser, which costs more than all else together.
std::optional<qint64> quotetext::parseTime(const QByteArray& text)
{
    static const QByteArray form = QByteArrayLiteral("0000-00-00T00:00:00.000Z");
    if (text.size() != form.size())
        return {};
    for (int i = 0; i < form.size(); ++i) {
        if (form[i] == '0' ? !isDigit(text[i]) : text[i] != form[i])
            return {};
    }
    const auto number = [&](int from, int digits) {
        int value = 0;
        for (int i = from; i < from + digits; ++i)
            value = value * 10 + (text[i] - '0');
        return value;
    };
    const QDate date(number(0, 4), number(5, 2), number(8, 2));
    const QTime time(number(11, 2), number(14, 2), number(17, 2), number(20, 3));
    if (!date.isValid() || !time.isValid())
        return {};
    return QDateTime(date, time, Qt::UTC).toMSecsSinceEpoch();
}

QByteArray quotetext::formatTime(qint64 timeMs)
{
    return QDateTime::fromMSecsSinceEpoch(timeMs, Qt::UTC).toString(Qt::ISODateWithMs).toLatin1();
}

std::optional<Decimal> quotetext::parseDecimal(const QByteArray& text)
{
    const bool negative = text.startsWith('-');
    Decimal value;
    int digits = 0;
    bool point = false;
    for (int i = negative ? 1 : 0; i < text.size(); ++i) {
        if (text[i] == '.' && !point && digits > 0) {
            point = true;
        } else if (isDigit(text[i]) && ++digits <= Decimal::MaxDigits) {
            value.units = value.units * 10 + (text[i] - '0');
            value.decimals += point ? 1 : 0;
        } else {
            return {};
        }
    }
    if (digits == 0 || text.endsWith('.') || value.decimals > Decimal::MaxDecimals)
        return {};
    if (negative)
        value.units = -value.units;
    return value;
}
