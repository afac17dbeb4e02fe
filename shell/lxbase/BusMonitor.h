/// \file
/// CBusMonitor: a look inside the running bus. Ours.
#ifndef LXBASE_BUSMONITOR_H
#define LXBASE_BUSMONITOR_H

#include <lxbase/LxbaseExport.h>

#include <QString>
#include <QVariant>
#include <QVector>

#include <functional>
#include <vector>

struct BusTrace;

/// How much the bus counts and times while it works.
enum class StatisticsLevel {
    Off,     ///< only what comes for nothing: how many items were put, handled and dropped
    Counts,  ///< also lost items, and since when a handler call is in progress. The default
    Sampled, ///< also how long one handler call in 64 took, and how long one item at a time waited
    Full,    ///< also how long every handler call took
};

/// What an inbox is for.
enum class InboxKind { Messages, Quotations, Events };

/// How often durations of each length were measured. A value; durations are nanoseconds.
///
/// Powers of two are divided in eight, so a quantile is at most an eighth too high.
class LXBASE_EXPORT DurationHistogram
{
public:
    /// How many durations there were.
    quint64 count() const;

    /// The duration that `fraction` (0 to 1) of them did not exceed: the upper end of its step, but
    /// never more than max(). 0 if there were none.
    qint64 quantile(double fraction) const;

    /// The longest, exactly; 0 if there were none.
    qint64 max() const { return m_max; }

    /// All of them together, exactly.
    qint64 sum() const { return m_sum; }

    /// How many were not longer than `limit`, to the step in which it lies: those of that step
    /// count if its middle does not exceed the limit.
    quint64 countUpTo(qint64 limit) const;

    /// Takes another one's durations in.
    void add(const DurationHistogram& other);

    /// Takes one duration in; a negative one as 0.
    void add(qint64 duration);

    static constexpr int StepsPerOctave = 8; ///< of the division of each power of two
    static constexpr int Octaves = 36;       ///< the last step takes everything from 257 s on
    static constexpr int Steps = StepsPerOctave * Octaves; ///< in all

    /// The step that a duration falls into, 0 to Steps - 1.
    static int stepOf(qint64 duration);

    /// The shortest duration of a step.
    static qint64 lowerEnd(int step);

private:
    friend class DurationRecorder;

    std::vector<quint64> m_counts; // by step; empty while there are none
    qint64 m_max = 0;
    qint64 m_sum = 0;
};

/// The figures of one inbox since its registration. At every moment put == waiting + handled +
/// dropped + superseded + what of the batch in hand has not been counted yet. Counts are of items.
struct InboxStatistics
{
    QString plugin;                       ///< the ID; empty: all plugins that have gone
    InboxKind kind = InboxKind::Messages; ///< of traffic
    quint64 waiting = 0;                  ///< in the inbox now
    quint64 peak = 0;                     ///< the most that waited at once
    quint64 put = 0;                      ///< into the inbox
    quint64 handled = 0;                  ///< counted every 64 calls at most, and with each batch
    quint64 dropped = 0;                  ///< freed undelivered
    quint64 superseded = 0;               ///< replaced by a newer one: InboxPolicy::KeepLatest
    qint64 busyForNs = 0;                 ///< of the handler call in progress; 0 if there is none
    DurationHistogram waitTime;           ///< from put to handler; from level Sampled on
    DurationHistogram handlerTime;        ///< of handler calls; from level Sampled on
};

/// The figures of the list of a network path; handled is routed.
struct NetworkListStatistics
{
    quint64 waiting = 0; ///< in the list now
    quint64 peak = 0;    ///< the most that waited at once
    quint64 put = 0;     ///< into the list
    quint64 handled = 0; ///< routed
    quint64 dropped = 0; ///< freed without being routed
};

/// Why something that was put did not reach a handler.
enum class LostReason {
    UnknownDestination,      ///< the destination is not registered
    NoSubscriber,            ///< a broadcast whose type nobody else has subscribed
    SubscriberNotRegistered, ///< a subscriber or the member of a group is not registered
    NoInbox,                 ///< the receiver is registered, but not for that kind of traffic
    NoNetPlugin,             ///< the copy for the network: no net plugin with a message inbox
    Unregistered,            ///< dropped when its receiver was unregistered
    NoPlugin,                ///< its receiver is registered without a plugin object
    NotCopied,               ///< the payload's copy has thrown, or there was no memory
    BeforeStart,             ///< network traffic before CMessageCenter::Start
    AtEnd,                   ///< dropped at the end of the process
    DroppedOldest,           ///< of a full inbox, for a newer one: InboxPolicy::DropOldest
    RefusedNewest,           ///< put to a full inbox: InboxPolicy::RefuseNewest
    TooOld,                  ///< when its turn came: InboxPolicy::maxAgeMs
};

/// How many reasons there are.
constexpr int LostReasonCount = 13;

/// The reason in a word, for tables and labels: "unknown_destination".
LXBASE_EXPORT QString lostReasonName(LostReason reason);

/// The kind in a word, for tables and labels: "messages", "quotations" or "events".
LXBASE_EXPORT QString inboxKindName(InboxKind kind);

/// The way that something took into the bus.
enum class PutPath { Put, PutEvent, PutNetMsg, PutQuotationMsg };

/// One thing that was lost; never its payload.
struct LostItem
{
    quint64 sequence = 0;                               ///< from 1 on, without gaps
    qint64 timeMs = 0;                                  ///< since 1970, UTC
    LostReason reason = LostReason::UnknownDestination; ///< why
    PutPath path = PutPath::Put;                        ///< how it was put
    QString source;                                     ///< the sender's ID, as receivers see it
    QString destination; ///< who went without; empty: nobody is known
    QVariant type;       ///< of the message or event; a class of somebody's own: its name
    QString traceId;     ///< of the message, where it has one
};

/// A handler call in progress that has lasted longer than the limit.
struct Stall
{
    QString plugin;                       ///< the ID
    InboxKind kind = InboxKind::Messages; ///< of handler
    QVariant type;                        ///< of the item that is handled, as in LostItem
    QString sender;                       ///< of that item
    qint64 forMs = 0;                     ///< at least so long
    quint64 waiting = 0;                  ///< items in the inbox behind it
    QString thread;                       ///< object name of the worker
    quint64 threadId = 0;                 ///< the system's number of the thread
};

/// The whole bus at one moment, inbox by inbox.
struct BusStatistics
{
    StatisticsLevel level = StatisticsLevel::Counts; ///< the present one
    qint64 timeMs = 0;                               ///< since 1970, UTC
    QVector<InboxStatistics>
        inboxes;                   ///< by plugin ID and kind; first those that have gone, by kind
    NetworkListStatistics netList; ///< of PutNetMsg
    NetworkListStatistics quotationList;                       ///< of PutQuotationMsg
    QVector<quint64> lost = QVector<quint64>(LostReasonCount); ///< by LostReason
    int poolRecordsMade = 0;                                   ///< by the record pool
    int poolRecordsOnLoan = 0;                                 ///< of these, not given back
    int threads = 0;        ///< of the bus: workers, dispatch threads, the one that watches
    int subscriptions = 0;  ///< of messages and events, each counted as often as it was made
    int relationGroups = 0; ///< with a member
};

/// What the bus tells about itself.
///
/// Threads: every operation may be called from any thread at any time, handlers included; none
/// takes part in a put, and none waits for a handler. No operation holds a lock of the bus for
/// longer than it takes to read one inbox.
class LXBASE_EXPORT CBusMonitor
{
public:
    CBusMonitor() = delete;

    /// How much is counted and timed from the next batch of each inbox on. What was counted stays.
    static void setLevel(StatisticsLevel level);

    /// The present level.
    static StatisticsLevel level();

    /// The figures of the moment, inbox after inbox.
    static BusStatistics statistics();

    /// How many items wait in an inbox; 0 if there is none. In constant time.
    static quint64 waiting(const QString& plugin, InboxKind kind);

    /// The last 1,024 lost items, oldest first, that came after the one with this sequence.
    static QVector<LostItem> lostItems(quint64 afterSequence = 0);

    /// Has `observer` called for every lost item from now on, on the thread that lost it, with no
    /// lock held; an empty function ends it. It may call anything: what it loses itself is counted
    /// and listed, but not observed again. A call in progress may end after this has returned.
    static void setLostItemObserver(std::function<void(const LostItem&)> observer);

    /// From now on a thread of the bus looks ten times a second for handler calls that last longer
    /// than `ms` milliseconds, and for inboxes in which more than 10,000 items wait. 0 (the
    /// default) ends it, a negative one is refused with a warning log record. Such a call is
    /// reported by a warning log record at the limit and whenever its time has doubled, at most
    /// five times a minute for one plugin, and once more when it has returned; an inbox at 10,000
    /// items and each doubling, and from 10,000 on again when it has held few for a minute. A call
    /// that is in progress already is not seen. Time in which the whole process, or the machine,
    /// stood still does not count.
    static void setStallLimit(int ms);

    /// The calls in progress that have been reported.
    static QVector<Stall> stalls();

    /// Records from now on what happens (see BusTrace.h), in at most `mebibytes` MiB for all
    /// threads together: when they are full, the oldest records make room. What was recorded before
    /// is forgotten. Below 1 is refused with a critical log record.
    static void startTrace(int mebibytes);

    /// Records no more; what was recorded stays until the next startTrace().
    static void stopTrace();

    /// What has been recorded so far; it stays recorded. Recording goes on meanwhile. Takes time
    /// and memory in proportion to the records, some 56 bytes each.
    static BusTrace takeTrace();
};

#endif
