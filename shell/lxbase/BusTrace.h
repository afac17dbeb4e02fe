/// \file
/// BusTrace: what happened in the bus, from each put to the handler calls that it led to. Ours.
#ifndef LXBASE_BUSTRACE_H
#define LXBASE_BUSTRACE_H

#include <lxbase/BusMonitor.h>

#include <QString>
#include <QVector>

/// What a record of a trace tells of. Which of the record's fields have a meaning is said here; all
/// have timeNs.
enum class TraceKind : quint8 {
    /// A put, recorded at its end: durationNs, path, type, source, destination (0: a broadcast),
    /// traceId. On the network paths item is the message that was handed in, see Route.
    Put,
    /// An item came into an inbox, during a put or a route of the same thread: item, destination
    /// (the receiver), inbox, number (how many wait there now).
    Append,
    /// A dispatch thread has routed a message, recorded at its end: durationNs, path, type, source,
    /// destination (0: a broadcast), traceId, item (as in the Put that handed it in).
    Route,
    /// A worker takes what waits: destination (its plugin), inbox, number (of items).
    BatchBegin,
    /// The worker is through with the batch: destination, inbox.
    BatchEnd,
    /// A handler call begins: item (as in Append), type, source, destination (the plugin), inbox.
    HandlerBegin,
    /// The handler call has returned: item, destination, inbox.
    HandlerEnd,
    /// A registration, recorded at its end: durationNs, destination (the plugin).
    Reg,
    /// UnReg, with the wait for the plugin's handlers in it, begins: destination (the plugin).
    UnRegBegin,
    /// UnReg is done: destination.
    UnRegEnd,
    /// Something was lost: path, type, source, destination, traceId, number (the LostReason).
    Lost,
    /// A handler call that lasts long was reported: destination (the plugin), inbox, type, source,
    /// number (milliseconds so far).
    Stall,
};

/// One record. Strings are numbers for BusTrace::text(), 0 the empty one.
struct TraceRecord
{
    qint64 timeNs = 0;     ///< when it began; of a clock that only goes forward, the same for all
    qint64 durationNs = 0; ///< of the kinds that are recorded at their end
    quint64 item = 0;   ///< names one item or message while it lives; may be used again afterwards
    quint64 number = 0; ///< by kind
    quint32 type = 0;   ///< of the message or event, as text
    quint32 source = 0; ///< the sender's ID
    quint32 destination = 0;               ///< a plugin's ID
    quint32 traceId = 0;                   ///< of the message; 0: it has none
    TraceKind kind = TraceKind::Put;       ///< of event
    PutPath path = PutPath::Put;           ///< by kind
    InboxKind inbox = InboxKind::Messages; ///< by kind
};

/// What one thread did.
struct TraceThread
{
    QString name;                 ///< the thread's object name, or "Thread" and its number
    quint64 number = 0;           ///< the system's number of the thread
    QVector<TraceRecord> records; ///< by time
};

/// What was recorded, as a value.
struct LXBASE_EXPORT BusTrace
{
    QVector<TraceThread> threads; ///< in the order of their numbers; those that have ended as well
    QVector<QString> texts;       ///< what the numbers in the records stand for
    quint64 overwritten = 0;      ///< records that had to make room for newer ones
    qint64 startedNs = 0;         ///< when recording began, on the clock of the records
    qint64 startedMs = 0;         ///< the same moment since 1970, UTC

    /// The string that a number in a record stands for.
    QString text(quint32 number) const { return texts.value(static_cast<int>(number)); }
};

#endif
