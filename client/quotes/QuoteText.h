// The text form of quotes: one row of a recording, and its parts.
#ifndef LXCLIENT_QUOTETEXT_H
#define LXCLIENT_QUOTETEXT_H

#include <lxclient/Error.h>
#include <lxclient/Protocol.h>

#include <QByteArray>
#include <QString>

#include <optional>

namespace quotetext {

// The first line of every recording.
inline const QByteArray Header = QByteArrayLiteral("timestamp,symbol,bid,ask");

// A row without its line end, as a quote without sequence.
lxclient::Error parseRow(const QByteArray& row, lxclient::Quote& quote);

// The row that parseRow reads back to the same quote, with its line end.
QByteArray formatRow(const lxclient::Quote& quote);

// 2020-01-01T17:00:00.065Z, in milliseconds since 1970, and back. Nothing: it is no such time.
std::optional<qint64> parseTime(const QByteArray& text);
QByteArray formatTime(qint64 timeMs);

// Digits with at most one point, after an optional minus. Nothing: it is no such number.
std::optional<lxclient::Decimal> parseDecimal(const QByteArray& text);

} // namespace quotetext

#endif
