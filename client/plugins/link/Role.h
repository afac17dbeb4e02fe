// Role: what a linked client is: feed, exchange or desk.
#ifndef LXCLIENT_LINK_ROLE_H
#define LXCLIENT_LINK_ROLE_H

#include "Connection.h"
#include "Wire.h"

#include <lxclient/Report.h>

#include <QVector>

#include <functional>

namespace lxlink {

// An order that a plugin has put.
struct PutOrder
{
    QString sender;
    lxclient::Order order;
};

// What has come from the server, copied.
struct Letter
{
    enum class Kind { Order, Answer, Ask, Receipt };
    Kind kind;
    QByteArray subject;
    QByteArray data;
    quint64 sequence = 0;
    bool no_responders = false;
};

// What the link's thread has to do.
struct Work
{
    QVector<PutOrder> orders;
    QVector<Letter> letters;
    QVector<QByteArray> refused; // subjects to which publishing is not permitted
};

// The link as its roles see it. Any thread.
class Post
{
public:
    virtual void letter(Letter letter) = 0; // for the link's thread
    // To the plugins of this client.
    virtual void putQuote(const lxclient::Quote& quote) = 0;
    virtual void putNet(const QString& destination, int type, const QVariant& payload,
                        const QString& traceId) = 0;
    virtual void fault(const QString& what) = 0; // the session's ledger will not balance
    virtual void warn(const QString& what) = 0;  // said once for as long as it is the same

protected:
    ~Post() = default;
};

struct OtherClient
{
    QString role;
    QString name;
    bool left = false; // in an orderly way
};

// All on the link's thread, but for what is said otherwise.
class Role
{
public:
    virtual ~Role() = default;

    virtual lxclient::Error open() = 0; // main thread, before the link's thread begins

    virtual void connected() = 0; // again, or for the first time
    virtual void work(const Work& work) = 0;
    virtual void tick() = 0; // ten times a second

    virtual void start() { }                                          // main thread: bring in
    virtual void stop() { }                                           // main thread: no more of it
    virtual bool ended(const QVector<OtherClient>& others) const = 0; // any thread
    virtual void finish() { } // main thread; ends its threads

    // Any thread.
    virtual bool knowsSymbols(QVariantMap& /*settings*/) const { return true; }
    virtual void report(lxclient::Report& report) const = 0;
    virtual void describe(lxclient::LinkState& /*state*/) const { }
};

// For tests of what happens when the process dies: LXLINK_CRASH_AT=POINT or POINT:N ends it at the
// Nth passage of that point, without any cleaning up. Points: a desk's outbox-committed, published,
// acknowledged-unstored and acknowledged-stored; the exchange's orders-received, orders-committed
// and answers-published.
void crashPoint(const char* point);

} // namespace lxlink

#endif
