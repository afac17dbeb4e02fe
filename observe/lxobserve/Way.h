/// \file
/// The way of one trace ID through the bus, hop by hop.
#ifndef LXOBSERVE_WAY_H
#define LXOBSERVE_WAY_H

#include <lxobserve/ObserveExport.h>

#include <QString>
#include <QVector>

struct BusTrace;

namespace lxobserve {

/// One step of a message: it was put, routed, handled or lost. Durations are nanoseconds.
struct Hop
{
    /// What happened.
    enum class Kind { Put, Route, Handler, Lost };

    Kind kind = Kind::Put; ///< see there
    int cause = -1;        ///< index of the hop that led to this one; -1: none that is known
    QString operation;     ///< "PutEvent", "RecvMsg"; of a lost item the reason
    QString plugin;        ///< the sender; of a handler the plugin that has it
    QString peer;          ///< the destination, empty: a broadcast; of a handler the sender
    QString type;          ///< of the message or event
    QString thread;        ///< name of the thread
    qint64 startNs = 0;    ///< on the clock of the trace
    qint64 waitNs = -1;    ///< of a handler or a route, since the put; -1: not known
    qint64 durationNs = 0; ///< of the call; so far, if it is not finished
    bool finished = true;  ///< false: it was going on when the trace was taken
};

/// The way of a trace ID: every put that carries it; what each has led to, handler after handler;
/// and the puts that those handlers made under the same ID or under none, such as events. By time;
/// empty if no record of the trace carries the ID. Any thread.
LXOBSERVE_EXPORT QVector<Hop> wayOf(const BusTrace& trace, const QString& traceId);

} // namespace lxobserve

#endif
