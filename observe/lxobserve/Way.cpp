#include "Way.h"

#include "Timeline.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace lxobserve {

namespace {

// Goes from each put that carries the ID to what it led to.
class Walk
{
public:
    Walk(const BusTrace& trace, const QString& traceId);

    QVector<Hop> hops();

private:
    void visit(int track, int slice, int cause, qint64 putNs);
    int add(int track, const TraceRecord& record, qint64 startNs);
    bool carriesId(const TraceRecord& record) const;
    const Slice& at(int track, int slice) const;
    int sliceAt(int track, qint64 ns) const;

    const Timeline m_timeline;
    std::vector<bool> m_is_id;                 // by number of the trace's texts
    std::map<std::pair<int, int>, int> m_seen; // slices and their hops
    QVector<Hop> m_hops;
};

Walk::Walk(const BusTrace& trace, const QString& traceId)
    : m_timeline(trace)
{
    for (const QString& text : trace.texts)
        m_is_id.push_back(!traceId.isEmpty() && text == traceId);
}

bool Walk::carriesId(const TraceRecord& record) const
{
    return record.traceId < m_is_id.size() && m_is_id[record.traceId];
}

const Slice& Walk::at(int track, int slice) const
{
    return m_timeline.tracks()[static_cast<std::size_t>(track)]
        .slices[static_cast<std::size_t>(slice)];
}

QVector<Hop> Walk::hops()
{
    struct Start
    {
        qint64 ns;
        int track;
        int slice;
    };
    std::vector<Start> starts;
    const auto tracks = static_cast<int>(m_timeline.tracks().size());
    for (int track = 0; track < tracks; ++track) {
        const auto slices =
            static_cast<int>(m_timeline.tracks()[static_cast<std::size_t>(track)].slices.size());
        for (int slice = 0; slice < slices; ++slice) {
            if (carriesId(m_timeline.recordOf(track, slice)))
                starts.push_back({at(track, slice).begin_ns, track, slice});
        }
    }
    std::stable_sort(starts.begin(), starts.end(),
                     [](const Start& one, const Start& other) { return one.ns < other.ns; });
    for (const Start& start : starts)
        visit(start.track, start.slice, -1, -1);

    for (int track = 0; track < tracks; ++track) {
        for (const int instant : m_timeline.tracks()[static_cast<std::size_t>(track)].instants) {
            const TraceRecord& record = m_timeline.record(track, instant);
            if (record.kind != TraceKind::Lost || !carriesId(record))
                continue;
            const auto within = m_seen.find({track, sliceAt(track, record.timeNs)});
            const int hop = add(track, record, record.timeNs);
            m_hops[hop].cause = within == m_seen.end() ? -1 : within->second;
        }
    }

    // by time; the causes follow
    std::vector<int> order(static_cast<std::size_t>(m_hops.size()));
    std::iota(order.begin(), order.end(), 0);
    std::stable_sort(order.begin(), order.end(), [&](int one, int other) {
        return m_hops[one].startNs < m_hops[other].startNs;
    });
    std::vector<int> place(order.size());
    QVector<Hop> sorted;
    for (const int hop : order) {
        place[static_cast<std::size_t>(hop)] = sorted.size();
        sorted.append(m_hops[hop]);
    }
    for (Hop& hop : sorted) {
        if (hop.cause >= 0)
            hop.cause = place[static_cast<std::size_t>(hop.cause)];
    }
    return sorted;
}

void Walk::visit(int track, int slice, int cause, qint64 putNs)
{
    const auto [seen, isNew] = m_seen.try_emplace({track, slice}, m_hops.size());
    if (!isNew)
        return;
    const Slice& visited = at(track, slice);
    const TraceRecord& record = m_timeline.recordOf(track, slice);
    const int index = add(track, record, visited.begin_ns);
    m_hops[index].cause = cause;
    m_hops[index].waitNs = putNs < 0 ? -1 : visited.begin_ns - putNs;
    m_hops[index].durationNs = visited.end_ns - visited.begin_ns;
    m_hops[index].finished = visited.finished;

    const auto& arrows = m_timeline.arrows();
    const auto first =
        std::lower_bound(arrows.begin(), arrows.end(), std::make_pair(track, slice),
                         [](const Arrow& arrow, const std::pair<int, int>& wanted) {
                             return std::make_pair(arrow.from_track, arrow.from_slice) < wanted;
                         });
    for (auto arrow = first;
         arrow != arrows.end() && arrow->from_track == track && arrow->from_slice == slice; ++arrow)
        visit(arrow->to_track, arrow->to_slice, index, arrow->from_ns);

    if (record.kind != TraceKind::HandlerBegin)
        return;
    const auto& slices = m_timeline.tracks()[static_cast<std::size_t>(track)].slices;
    const auto count = static_cast<int>(slices.size());
    for (int inner = slice + 1; inner < count && at(track, inner).parent >= slice; ++inner) {
        const TraceRecord& made = m_timeline.recordOf(track, inner);
        if (made.kind == TraceKind::Put && (made.traceId == 0 || carriesId(made)))
            visit(track, inner, index, -1);
    }
}

int Walk::add(int track, const TraceRecord& record, qint64 startNs)
{
    const BusTrace& trace = m_timeline.trace();
    Hop hop;
    hop.operation = QLatin1String(Timeline::nameOf(record));
    hop.plugin = trace.text(record.source);
    hop.peer = trace.text(record.destination);
    hop.type = trace.text(record.type);
    hop.thread = m_timeline.tracks()[static_cast<std::size_t>(track)].name;
    hop.startNs = startNs;
    switch (record.kind) {
    case TraceKind::Route:
        hop.kind = Hop::Kind::Route;
        break;
    case TraceKind::HandlerBegin:
        hop.kind = Hop::Kind::Handler;
        std::swap(hop.plugin, hop.peer);
        break;
    case TraceKind::Lost:
        hop.kind = Hop::Kind::Lost;
        hop.operation = lostReasonName(static_cast<LostReason>(record.number));
        break;
    default:
        break;
    }
    m_hops.append(hop);
    return m_hops.size() - 1;
}

// The innermost one; -1: none.
int Walk::sliceAt(int track, qint64 ns) const
{
    const auto& slices = m_timeline.tracks()[static_cast<std::size_t>(track)].slices;
    const auto next =
        std::upper_bound(slices.begin(), slices.end(), ns,
                         [](qint64 time, const Slice& slice) { return time < slice.begin_ns; });
    auto slice = static_cast<int>(next - slices.begin()) - 1;
    while (slice >= 0 && at(track, slice).end_ns < ns)
        slice = at(track, slice).parent;
    return slice;
}

} // namespace

QVector<Hop> wayOf(const BusTrace& trace, const QString& traceId)
{
    return Walk(trace, traceId).hops();
}

} // namespace lxobserve
