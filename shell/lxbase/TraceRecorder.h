// TraceRecorder: records what happens in the bus, for CBusMonitor::takeTrace.
// Internal: not installed.
#ifndef LXBASE_TRACERECORDER_H
#define LXBASE_TRACERECORDER_H

#include <lxbase/BusTrace.h>
#include <lxbase/InboxMeter.h>

#include <QString>
#include <QVariant>

namespace lxbase::detail {

// Asked at every site, on the way of every message.
inline bool isTracing()
{
    return monitorSwitches.traces.load(std::memory_order_relaxed);
}

// What a site has to say; strings and types are looked at during the call only.
struct TraceEntry
{
    TraceKind kind;
    quint8 detail = 0;  // the PutPath or the InboxKind, whichever the kind has
    qint64 timeNs = 0;  // a stamp of the same thread; 0: now
    quint64 number = 0; // or the duration
    const void* item = nullptr;
    const QVariant* type = nullptr;
    const QString* source = nullptr;
    const QString* destination = nullptr;
    const QString* traceId = nullptr;
};

// A thread writes records into a chunk of its own and takes a mutex only when it is full; then the
// oldest full chunk of all threads goes if there is no room for another one. Strings are kept in a
// table of the thread, records hold their numbers. Tables go with the last chunk that uses them,
// and a thread begins another one now and then, so that not even types without end fill the memory.
// Trace IDs are new with each message and stand behind their record instead.
//
// Any thread, with any lock of the bus held: the mutex inside is a last one.
class TraceRecorder
{
public:
    // As CBusMonitor says.
    static void start(int mebibytes);
    static void stop();
    static BusTrace take();

    // The time, later than any that the thread was told before, so that times tell the order of its
    // records. The nanosecond that follows is the caller's too.
    static qint64 stamp() noexcept;

    // For what begins when the thread has just recorded the end of something else: a nanosecond
    // after that, which saves a reading of the clock.
    static qint64 stampBehindLast() noexcept;

    // Appends a record of the present thread. Does nothing for want of memory, or at the end of the
    // thread, when there is nobody left to write for.
    static void record(const TraceEntry& entry) noexcept;
};

// A put on its way, or what a dispatch thread makes of it. Nothing here is inline: puts that are
// not recorded shall not be the longer for it.
class TracedPut
{
public:
    TracedPut(PutPath path, const QString& source, const QVariant& type);
    ~TracedPut();
    Q_DISABLE_COPY(TracedPut)

    // When the first item is there. Not before: its address may be that of an item which another
    // thread is just freeing, and the first append has the time of the beginning.
    void begin()
    {
        if (m_begin_ns == 0)
            m_begin_ns = TraceRecorder::stamp();
    }

    // Before an item goes into an inbox, for the handler call may begin before that has returned;
    // and afterwards, when `waiting` items are there. The time of the first is the put's, which
    // saves a reading of the clock.
    void beginAppend();
    void endAppend(const QString& receiver, const void* item, int waiting) const;

    // `message` is what the network paths hand on, and then deliver.
    void end(TraceKind kind, const QString& destination, const QString& traceId,
             const void* message);

private:
    const PutPath m_path;
    qint64 m_begin_ns = 0;  // 0: not yet
    qint64 m_append_ns = 0; // 0: nothing has been appended yet
    const QString m_source;
    const QVariant m_type;
};

} // namespace lxbase::detail

#endif
