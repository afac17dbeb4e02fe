/// \file
/// What the plugins of lxclient say to one another: message and event types, the payload of each,
/// and the settings that the host hands to every plugin.
#ifndef LXCLIENT_PROTOCOL_H
#define LXCLIENT_PROTOCOL_H

#include <lxclient/Decimal.h>
#include <lxclient/Requests.h>

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <atomic>
#include <memory>

namespace lxclient {

// ---- payloads --------------------------------------------------------------------------------
// Travel by value in the payload variant: put QVariant::fromValue(quote), take data.value<Quote>().

/// One change of the best bid and ask of a symbol.
struct Quote
{
    QString symbol;       ///< one of the setting "symbols"
    quint64 sequence = 0; ///< of this symbol in this session, from 1 on without gaps
    qint64 time_ms = 0;   ///< of the quotation, UTC, milliseconds since 1970
    Decimal bid;          ///< at which one can sell
    Decimal ask;          ///< at which one can buy
};

/// The strategy's wish for an order, or its refusal: then `reason` says why.
struct OrderRequest
{
    QString trace_id;    ///< chosen by who asks; goes with everything that follows from the request
    QString symbol;      ///< what to trade
    qint64 quantity = 0; ///< positive
    /// Which way the position goes.
    enum Side { Buy, Sell };
    Side side = Buy; ///< see there
    QString reason;  ///< why it was refused, in words for the user
};

/// An order on its way to the exchange; its acknowledgement is the order sent back.
struct Order
{
    QString trace_id; ///< of the request
    /// From 1 on in each session; where there is a setting "orders.first", from that on.
    quint64 order_id = 0;
    QString symbol;      ///< what to trade
    qint64 quantity = 0; ///< signed: negative sells
};

/// An order was filled, whole.
struct Execution
{
    Order order;        ///< the whole order
    Decimal price;      ///< the ask if it buys, the bid if it sells
    qint64 time_ms = 0; ///< of the quote at which it was filled
};

/// An order that was not taken.
struct OrderRejection
{
    Order order;    ///< the whole order
    QString reason; ///< why, in words for the user
};

/// A trend turned: a chart reader would look at this symbol now.
struct Signal
{
    QString symbol;      ///< whose trend
    bool rising = false; ///< the new direction
};

/// What is held of a symbol since an execution changed it.
struct Position
{
    QString trace_id;    ///< of the execution
    QString symbol;      ///< what is held
    qint64 quantity = 0; ///< signed: negative is short
};

/// A window shows another symbol.
struct Selection
{
    QString symbol; ///< the one that it shows now
};

/// How the link to the other clients is, told when that changes and once a second.
struct LinkState
{
    bool connected = false;    ///< to the server
    qint64 since_ms = 0;       ///< UTC: for so long it has been, or is being connected again
    QString server;            ///< nats://HOST:PORT
    quint64 outbox = 0;        ///< orders without an answer
    qint64 quote_age_ms = -1;  ///< since the last quote came; -1: none has
    qint64 round_trip_us = -1; ///< of the last order, until its answer was stored; -1: none yet
    quint64 quotes_missed = 0; ///< by their numbers: newer ones came
};

/// Another client that is linked, or was.
struct Presence
{
    QString role;         ///< "feed", "exchange" or "desk"
    QString name;         ///< of a desk
    QString version;      ///< of the program
    qint64 since_ms = 0;  ///< UTC: when it began
    qint64 last_ms = 0;   ///< UTC: its last sign of life
    bool present = false; ///< false: it has left, or nothing was heard of it for three seconds
};

// ---- types -----------------------------------------------------------------------------------
// Always an int: variants of unlike kinds may compare equal. Take numbers of your own from
// FirstFreeType on.

// messages
constexpr int OrderRequestType = 0x41001;    ///< OrderRequest, directed to the orders plugin
constexpr int OrderRefusedType = 0x41002;    ///< OrderRequest, directed back to who asked
constexpr int OrderType = 0x41003;           ///< Order, broadcast and sent to the net
constexpr int AcknowledgementType = 0x41004; ///< Order, from the net to who put the order
constexpr int ExecutionType = 0x41005;       ///< Execution, from the net to all who subscribed
constexpr int SignalType = 0x41006;          ///< Signal, directed to the first board
constexpr int RequestType = 0x41007;         ///< Request, directed to who is asked
constexpr int ReplyType = 0x41008;           ///< Reply, directed back to who asked
constexpr int OrderRejectedType = 0x41009;   ///< OrderRejection, from the net to who put the order

// events
constexpr int PositionType = 0x42001;  ///< Position, broadcast
constexpr int SelectionType = 0x42002; ///< Selection, broadcast: reaches the linked windows only
constexpr int LinkStateType =
    0x42101;                          ///< LinkState, broadcast by the net plugin of a linked client
constexpr int PresenceType = 0x42102; ///< Presence, likewise, once per change

// quotations: one type per symbol, in the order of the setting "symbols"
constexpr int FirstQuoteType = 0x50000; ///< Quote, of the first symbol; see quoteType
constexpr int FirstFreeType = 0x60000;  ///< the client's own plugins use none from here on

/// \{
/// IDs of plugins that others address; the net plugin's is in <lxdefine/PluginID.h>.
inline const QString OrdersId = QStringLiteral("orders");
inline const QString FirstBoardId = QStringLiteral("board#1");
/// \}

// ---- settings --------------------------------------------------------------------------------

/// How many quotes the host's own listener has taken from its outside queue: it counts, others
/// read.
using HeardQuotes = std::shared_ptr<std::atomic<quint64>>;

/// Settings that the host sets itself and gives to every plugin; no plugin declares one of these
/// names, and --set does not take them.
namespace setting {

/// QStringList: all that can be quoted.
inline const QString Symbols = QStringLiteral("symbols");
/// QStringList: the instances whose window has this one's colour, without itself.
inline const QString Linked = QStringLiteral("linked");
/// QStringList: the recordings to play; empty: a synthetic session.
inline const QString Quotes = QStringLiteral("quotes");
/// double: times real time; 0: as fast as possible.
inline const QString Speed = QStringLiteral("speed");
/// int: so many quotes has the synthetic session.
inline const QString SyntheticQuotes = QStringLiteral("synthetic.quotes");
/// qulonglong: what the synthetic session is made from.
inline const QString SyntheticSeed = QStringLiteral("synthetic.seed");
/// HeardQuotes: who puts quotes waits for the listener, as for a full inbox.
inline const QString Heard = QStringLiteral("quotes.heard");
/// int: how many boards there are.
inline const QString Boards = QStringLiteral("boards");
/// bool: the boards keep the latest quote of each symbol only, where they are too slow for all.
inline const QString BoardsKeepLatest = QStringLiteral("boards.keep-latest");
/// QString: the journal's file; empty: none.
inline const QString Journal = QStringLiteral("journal");
/// int: where the metrics are served, on the loopback interface; 0: anywhere. Missing: nowhere.
inline const QString MetricsPort = QStringLiteral("metrics.port");
/// bool: plugins may open windows, for there is a QApplication. Missing: they may not.
inline const QString Windows = QStringLiteral("windows");
/// double: a pause between two quotes that would be waited for longer than so many seconds is left
/// out. Missing: none is.
inline const QString SkipGaps = QStringLiteral("skip.gaps");
/// lxclient::Supervisor*: whom PluginBase tells of the plugin's handlers. Missing: nobody.
inline const QString Supervisor = QStringLiteral("supervisor");

/// QString: the server of a linked client, nats://HOST:PORT. Missing: it is not linked.
inline const QString Link = QStringLiteral("link");
/// QString: "feed", "exchange" or "desk".
inline const QString LinkRole = QStringLiteral("link.role");
/// QString: the name of the desk.
inline const QString LinkDesk = QStringLiteral("link.desk");
/// QString: the file in which a desk keeps its outbox, and the exchange its orders.
inline const QString LinkStore = QStringLiteral("link.store");
/// QString: a file with user and password; empty: none are needed.
inline const QString LinkCredentials = QStringLiteral("link.credentials");
/// bool: a feed or an exchange, without the plugins that serve a user. Missing: it is not.
inline const QString Service = QStringLiteral("service");
/// qulonglong: the ID of the first order of this session. Missing: 1.
inline const QString FirstOrder = QStringLiteral("orders.first");

/// All of them.
inline QStringList ofTheHost()
{
    return {Symbols,         Linked,          Quotes,
            Speed,           SyntheticQuotes, SyntheticSeed,
            Heard,           Boards,          BoardsKeepLatest,
            Journal,         MetricsPort,     Windows,
            SkipGaps,        Supervisor,      Link,
            LinkRole,        LinkDesk,        LinkStore,
            LinkCredentials, Service,         FirstOrder};
}

} // namespace setting

/// The type of the quotations of `symbol`; -1 if it is not among the symbols.
inline int quoteType(const QVariantMap& settings, const QString& symbol)
{
    const int index = settings.value(setting::Symbols).toStringList().indexOf(symbol);
    return index < 0 ? -1 : FirstQuoteType + index;
}

} // namespace lxclient

Q_DECLARE_METATYPE(lxclient::HeardQuotes)
Q_DECLARE_METATYPE(lxclient::Quote)
Q_DECLARE_METATYPE(lxclient::OrderRequest)
Q_DECLARE_METATYPE(lxclient::Order)
Q_DECLARE_METATYPE(lxclient::Execution)
Q_DECLARE_METATYPE(lxclient::OrderRejection)
Q_DECLARE_METATYPE(lxclient::LinkState)
Q_DECLARE_METATYPE(lxclient::Presence)
Q_DECLARE_METATYPE(lxclient::Signal)
Q_DECLARE_METATYPE(lxclient::Position)
Q_DECLARE_METATYPE(lxclient::Selection)

namespace lxclient {

/// The host calls this before it loads plugins: the framework keeps the functions of whoever
/// registers a type first, and those of an unloaded library would be gone.
inline void registerPayloads()
{
    qRegisterMetaType<HeardQuotes>();
    qRegisterMetaType<Quote>();
    qRegisterMetaType<OrderRequest>();
    qRegisterMetaType<Order>();
    qRegisterMetaType<Execution>();
    qRegisterMetaType<OrderRejection>();
    qRegisterMetaType<LinkState>();
    qRegisterMetaType<Presence>();
    qRegisterMetaType<Signal>();
    qRegisterMetaType<Position>();
    qRegisterMetaType<Selection>();
    qRegisterMetaType<Request>();
    qRegisterMetaType<Reply>();
}

} // namespace lxclient

#endif
