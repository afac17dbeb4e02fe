#include "Timeline.h"

#include <QMap>
#include <QSet>

#include <algorithm>
#include <tuple>

namespace lxobserve {

namespace {

constexpr quint64 ThreadNumbers = 1u << 22; // the system counts threads below this, and anew then

bool isWhole(TraceKind kind)
{
    return kind == TraceKind::Put || kind == TraceKind::Route || kind == TraceKind::Reg;
}

bool isBegin(TraceKind kind)
{
    return kind == TraceKind::BatchBegin || kind == TraceKind::HandlerBegin
        || kind == TraceKind::UnRegBegin;
}

// The kind of record that begins what this one ends; Put: it ends nothing.
TraceKind beginOf(TraceKind kind)
{
    switch (kind) {
    case TraceKind::BatchEnd:
        return TraceKind::BatchBegin;
    case TraceKind::HandlerEnd:
        return TraceKind::HandlerBegin;
    case TraceKind::UnRegEnd:
        return TraceKind::UnRegBegin;
    default:
        return TraceKind::Put;
    }
}

// Of a LostReason, for as long as the program runs.
const char* reasonName(quint64 reason)
{
    static const std::vector<QByteArray> names = [] {
        std::vector<QByteArray> made;
        made.reserve(LostReasonCount);
        for (int i = 0; i < LostReasonCount; ++i)
            made.push_back(lostReasonName(static_cast<LostReason>(i)).toUtf8());
        return made;
    }();
    return reason < names.size() ? names[reason].constData() : "unknown";
}

// An inner slice that seems to last longer than the outer one is cut.
void nest(std::vector<Slice>& slices)
{
    std::stable_sort(slices.begin(), slices.end(), [](const Slice& one, const Slice& other) {
        return std::make_tuple(one.begin_ns, -one.end_ns)
            < std::make_tuple(other.begin_ns, -other.end_ns);
    });
    int outer = -1;
    for (std::size_t i = 0; i < slices.size(); ++i) {
        Slice& slice = slices[i];
        while (outer >= 0 && slices[static_cast<std::size_t>(outer)].end_ns <= slice.begin_ns)
            outer = slices[static_cast<std::size_t>(outer)].parent;
        slice.parent = outer;
        if (outer >= 0)
            slice.end_ns = std::min(slice.end_ns, slices[static_cast<std::size_t>(outer)].end_ns);
        outer = static_cast<int>(i);
    }
}

} // namespace

// The address of an item or a message when it was handed over or came to its end.
struct Timeline::Encounter
{
    quint64 address;
    qint64 time_ns;
    bool arrives;
    int track;
    int slice;
    int record;
};

Timeline::Timeline(const BusTrace& trace)
    : m_trace(trace)
{
    for (const TraceThread& thread : trace.threads) {
        for (const TraceRecord& record : thread.records)
            m_end_ns = std::max(m_end_ns, record.timeNs + record.durationNs);
    }
    m_tracks.reserve(static_cast<std::size_t>(trace.threads.size()));
    for (const TraceThread& thread : trace.threads)
        m_tracks.push_back(makeTrack(thread));
    giveNumbers();
    findArrows();
    findDepths();
}

Track Timeline::makeTrack(const TraceThread& thread) const
{
    Track track;
    track.name = thread.name;
    track.number = thread.number;
    std::vector<std::size_t> open; // slices without an end yet, outer before inner
    for (int i = 0; i < thread.records.size(); ++i) {
        const TraceRecord& record = thread.records[i];
        if (isWhole(record.kind)) {
            track.slices.push_back({record.timeNs, record.timeNs + record.durationNs, i, -1, true});
        } else if (isBegin(record.kind)) {
            open.push_back(track.slices.size());
            track.slices.push_back({record.timeNs, m_end_ns, i, -1, false});
        } else if (record.kind == TraceKind::Lost || record.kind == TraceKind::Stall) {
            track.instants.push_back(i);
        } else if (const TraceKind begun = beginOf(record.kind); begun != TraceKind::Put) {
            const auto match = std::find_if(open.rbegin(), open.rend(), [&](std::size_t slice) {
                return thread.records[track.slices[slice].record].kind == begun;
            });
            if (match == open.rend())
                continue; // its beginning was overwritten
            const auto first = match.base() - 1;
            for (auto slice = first; slice != open.end(); ++slice) {
                track.slices[*slice].end_ns = record.timeNs;
                track.slices[*slice].finished = true;
            }
            open.erase(first, open.end());
        }
    }
    nest(track.slices);
    return track;
}

// Viewers draw what has the same number into one track. The system may have given the number of a
// thread that has ended to another one.
void Timeline::giveNumbers()
{
    QSet<quint64> given;
    for (Track& track : m_tracks) {
        while (given.contains(track.number))
            track.number += ThreadNumbers;
        given.insert(track.number);
    }
}

// An address names an item from the inbox to its handler, and a message from the put to its
// routing; afterwards it may name another one. Each life is an arrow.
void Timeline::findArrows()
{
    std::vector<Encounter> items;
    std::vector<Encounter> messages;
    for (std::size_t track = 0; track < m_tracks.size(); ++track)
        collect(static_cast<int>(track), items, messages);
    connect(items);
    connect(messages);
    std::sort(m_arrows.begin(), m_arrows.end(), [](const Arrow& one, const Arrow& other) {
        return std::tie(one.from_track, one.from_slice, one.id)
            < std::tie(other.from_track, other.from_slice, other.id);
    });
}

void Timeline::collect(int track, std::vector<Encounter>& items,
                       std::vector<Encounter>& messages) const
{
    const Track& drawn = m_tracks[static_cast<std::size_t>(track)];
    for (std::size_t i = 0; i < drawn.slices.size(); ++i) {
        const Slice& slice = drawn.slices[i];
        const TraceRecord& made = record(track, slice.record);
        const Encounter encounter{made.item, slice.begin_ns,      made.kind != TraceKind::Put,
                                  track,     static_cast<int>(i), slice.record};
        if (made.kind == TraceKind::HandlerBegin)
            items.push_back(encounter);
        else if ((made.kind == TraceKind::Put || made.kind == TraceKind::Route) && made.item != 0)
            messages.push_back(encounter);
    }

    // items come into inboxes within the innermost put or route
    const QVector<TraceRecord>& records = m_trace.threads[track].records;
    int innermost = -1;
    std::size_t next = 0;
    for (int i = 0; i < records.size(); ++i) {
        const TraceRecord& made = records[i];
        if (made.kind != TraceKind::Append)
            continue;
        while (next < drawn.slices.size() && drawn.slices[next].begin_ns <= made.timeNs)
            innermost = static_cast<int>(next++);
        int slice = innermost;
        while (slice >= 0
               && (drawn.slices[static_cast<std::size_t>(slice)].end_ns < made.timeNs
                   || (recordOf(track, slice).kind != TraceKind::Put
                       && recordOf(track, slice).kind != TraceKind::Route)))
            slice = drawn.slices[static_cast<std::size_t>(slice)].parent;
        items.push_back({made.item, made.timeNs, false, track, slice, i});
    }
}

void Timeline::connect(std::vector<Encounter>& encounters)
{
    std::sort(encounters.begin(), encounters.end(),
              [](const Encounter& one, const Encounter& other) {
                  return std::tie(one.address, one.time_ns, one.arrives)
                      < std::tie(other.address, other.time_ns, other.arrives);
              });
    for (std::size_t i = 1; i < encounters.size(); ++i) {
        const Encounter& from = encounters[i - 1];
        const Encounter& to = encounters[i];
        if (from.address == to.address && !from.arrives && to.arrives && from.slice >= 0
            && belongTogether(from, to)) {
            m_arrows.push_back(
                {m_arrows.size() + 1, from.track, from.slice, to.track, to.slice, from.time_ns});
        }
    }
}

// Where records were overwritten, one life may have lost its end and the next one its beginning:
// so the receiver has to be the same, and its thread's records must reach back to the beginning.
bool Timeline::belongTogether(const Encounter& from, const Encounter& to) const
{
    const TraceRecord& left = record(from.track, from.record);
    const TraceRecord& reached = record(to.track, to.record);
    if (m_trace.overwritten > 0 && from.time_ns < m_trace.threads[to.track].records.first().timeNs)
        return false;
    if (reached.kind == TraceKind::HandlerBegin)
        return left.destination == reached.destination && left.inbox == reached.inbox;
    return left.path == reached.path && left.type == reached.type;
}

// A batch takes everything that waits.
void Timeline::findDepths()
{
    QMap<QPair<QString, InboxKind>, std::vector<Depth>> inboxes;
    QMap<QPair<quint32, InboxKind>, std::vector<Depth>*> known; // the same, by number
    for (const TraceThread& thread : m_trace.threads) {
        for (const TraceRecord& record : thread.records) {
            if (record.kind != TraceKind::Append && record.kind != TraceKind::BatchBegin)
                continue;
            std::vector<Depth>*& depths = known[{record.destination, record.inbox}];
            if (!depths)
                depths = &inboxes[{m_trace.text(record.destination), record.inbox}];
            depths->push_back(
                {record.timeNs, record.kind == TraceKind::Append ? record.number : 0});
        }
    }
    for (auto inbox = inboxes.begin(); inbox != inboxes.end(); ++inbox) {
        std::stable_sort(inbox->begin(), inbox->end(), [](const Depth& one, const Depth& other) {
            return one.time_ns < other.time_ns;
        });
        m_depths.push_back(
            {inbox.key().first + QLatin1Char(' ') + inboxKindName(inbox.key().second),
             std::move(*inbox)});
    }
}

const char* Timeline::nameOf(const TraceRecord& record)
{
    switch (record.kind) {
    case TraceKind::Put:
        switch (record.path) {
        case PutPath::Put:
            return "Put";
        case PutPath::PutEvent:
            return "PutEvent";
        case PutPath::PutNetMsg:
            return "PutNetMsg";
        case PutPath::PutQuotationMsg:
            return "PutQuotationMsg";
        }
        break;
    case TraceKind::HandlerBegin:
    case TraceKind::HandlerEnd:
        switch (record.inbox) {
        case InboxKind::Messages:
            return "RecvMsg";
        case InboxKind::Quotations:
            return "RecvQuotationMsg";
        case InboxKind::Events:
            return "RecvEvent";
        }
        break;
    case TraceKind::Route:
        return "Route";
    case TraceKind::Append:
        return "Append";
    case TraceKind::BatchBegin:
    case TraceKind::BatchEnd:
        return "Batch";
    case TraceKind::Reg:
        return "Reg";
    case TraceKind::UnRegBegin:
    case TraceKind::UnRegEnd:
        return "UnReg";
    case TraceKind::Lost:
        return "Lost";
    case TraceKind::Stall:
        return "Stall";
    }
    return "";
}

std::vector<Annotation> Timeline::annotationsOf(const TraceRecord& record)
{
    std::vector<Annotation> annotations;
    const auto add = [&](const char* name, quint32 text) {
        if (text != 0)
            annotations.push_back({name, text});
    };
    switch (record.kind) {
    case TraceKind::BatchBegin:
        annotations.push_back({"items", 0, record.number});
        break;
    case TraceKind::Stall:
        annotations.push_back({"milliseconds", 0, record.number});
        break;
    case TraceKind::Lost:
        annotations.push_back({"reason", 0, 0, reasonName(record.number)});
        break;
    default:
        break;
    }
    add("type", record.type);
    add("source", record.source);
    add("destination", record.destination);
    add("trace ID", record.traceId);
    return annotations;
}

} // namespace lxobserve
