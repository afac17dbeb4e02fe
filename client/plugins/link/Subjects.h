// Subjects, streams and users: all names that the link shares with the server's configuration.
//
// | subject                          | kept in                    | who publishes | who reads     |
// |----------------------------------|----------------------------|---------------|---------------|
// | lx.1.q.<symbol>                  | -                          | feed          | desk, exchange|
// | lx.1.last.q.<symbol>             | LX1_LAST, memory, 1 each   | feed          | desk, exchange|
// | lx.1.last.end, lx.1.last.symbols | LX1_LAST                   | feed          | desk, exchange|
// | lx.1.ord.<desk>.<epoch>-<id>     | LX1_ORD, file, 1 each, new ones refused | that desk |
// exchange | | lx.1.exec.<desk>.<epoch>-<n>     | LX1_EXEC_<desk>, likewise  | exchange      | that
// desk     | | lx.1.ask.<desk>                  | -                          | that desk     |
// exchange      | | $KV.lx1_presence.feed, .exchange, .desk.<desk> | bucket lx1_presence, memory |
// its own | all |
//
// Users (one for each role): "feed", "exchange", and for each desk "desk-<desk>". Everybody
// subscribes to _INBOX.<user>.>, and asks the server's API for:
//   all       STREAM.CREATE and STREAM.INFO of KV_lx1_presence; DIRECT.GET.KV_lx1_presence.>
//   feed      STREAM.CREATE and STREAM.INFO of LX1_LAST
//   exchange  the same of LX1_ORD, with CONSUMER.CREATE; CONSUMER.CREATE of LX1_LAST
//   desk      the same of LX1_EXEC_<desk>, with CONSUMER.CREATE; CONSUMER.CREATE of LX1_LAST
// and CONSUMER.DELETE where it may create; flow control answers go to $JS.FC.>.
#ifndef LXCLIENT_LINK_SUBJECTS_H
#define LXCLIENT_LINK_SUBJECTS_H

#include <QByteArray>
#include <QString>

namespace lxlink {

inline const char AllQuotes[] = "lx.1.q.>";
inline const char AllLast[] = "lx.1.last.>";
inline const char EndSubject[] = "lx.1.last.end";
inline const char SymbolsSubject[] = "lx.1.last.symbols";
inline const char AllOrders[] = "lx.1.ord.>";
inline const char AllAsks[] = "lx.1.ask.*";

inline const char LastStream[] = "LX1_LAST";
inline const char OrderStream[] = "LX1_ORD";
inline const char PresenceBucket[] = "lx1_presence";
inline const char AllPresence[] = "$KV.lx1_presence.>";

// A token of a subject: what a token cannot hold is written as =XX, in hexadecimal.
inline QByteArray token(const QString& text)
{
    return text.toUtf8().toPercentEncoding("/", ".*> ", '=');
}

inline QByteArray quoteSubject(const QString& symbol)
{
    return "lx.1.q." + token(symbol);
}
inline QByteArray lastSubject(const QString& symbol)
{
    return "lx.1.last.q." + token(symbol);
}
inline QByteArray number(quint64 epoch, quint64 n)
{
    return QByteArray::number(epoch, 16) + '-' + QByteArray::number(n);
}
inline QByteArray orderSubject(const QString& desk, quint64 epoch, quint64 orderId)
{
    return "lx.1.ord." + desk.toUtf8() + '.' + number(epoch, orderId);
}
inline QByteArray answerSubject(const QString& desk, quint64 epoch, quint64 n)
{
    return "lx.1.exec." + desk.toUtf8() + '.' + number(epoch, n);
}
inline QByteArray answerStream(const QString& desk)
{
    return "LX1_EXEC_" + desk.toUtf8();
}
inline QByteArray allAnswers(const QString& desk)
{
    return "lx.1.exec." + desk.toUtf8() + ".>";
}
inline QByteArray askSubject(const QString& desk)
{
    return "lx.1.ask." + desk.toUtf8();
}

// "feed", "exchange" or "desk.NAME".
inline QByteArray presenceKey(const QString& role, const QString& desk)
{
    return role == QLatin1String("desk") ? "desk." + desk.toUtf8() : role.toUtf8();
}

} // namespace lxlink

#endif
