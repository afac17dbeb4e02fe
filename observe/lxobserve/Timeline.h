// Timeline: what the records of a trace mean. Internal: not installed.
#ifndef LXOBSERVE_TIMELINE_H
#define LXOBSERVE_TIMELINE_H

#include <lxbase/BusTrace.h>

#include <QString>
#include <QVector>

#include <vector>

namespace lxobserve {

// Something that lasted. Slices of one thread lie side by side or within one another.
struct Slice
{
    qint64 begin_ns = 0;
    qint64 end_ns = 0;
    int record = 0;       // index in the thread's records
    int parent = -1;      // index in the track's slices
    bool finished = true; // false: it lasted longer than the trace
};

// What one thread did.
struct Track
{
    QString name;
    quint64 number = 0;        // of the thread; unlike any other track's
    std::vector<Slice> slices; // by their beginning, outer before inner
    std::vector<int> instants; // records of lost items and stalls, by time
};

// One slice has led to another, mostly on another track.
struct Arrow
{
    quint64 id = 0; // unlike any other's
    int from_track = 0;
    int from_slice = 0;
    int to_track = 0;
    int to_slice = 0;
    qint64 from_ns = 0; // within the first slice
};

// How many items waited in an inbox from a time on.
struct Depth
{
    qint64 time_ns = 0;
    quint64 waiting = 0;
};

struct DepthTrack
{
    QString name; // "board#1 quotations"
    std::vector<Depth> depths;
};

// What a record says beside its times: a name, and words, a text of the trace or a number.
struct Annotation
{
    const char* name;
    quint32 text = 0;   // of the trace; 0: words or a number
    quint64 number = 0; // if there are no words
    const char* words = nullptr;
};

// Built once and only read then. Refers to the trace, which has to outlive it.
class Timeline
{
public:
    explicit Timeline(const BusTrace& trace);

    const BusTrace& trace() const { return m_trace; }
    const std::vector<Track>& tracks() const { return m_tracks; } // as the trace's threads
    const std::vector<Arrow>& arrows() const { return m_arrows; } // by track and slice they leave
    const std::vector<DepthTrack>& depths() const { return m_depths; }

    const TraceRecord& record(int track, int index) const
    {
        return m_trace.threads[track].records[index];
    }
    const TraceRecord& recordOf(int track, int slice) const
    {
        return record(track,
                      m_tracks[static_cast<std::size_t>(track)]
                          .slices[static_cast<std::size_t>(slice)]
                          .record);
    }

    // What a record is called: the operation, "Put" or "RecvMsg".
    static const char* nameOf(const TraceRecord& record);

    // In an order that is the same for all records of a kind.
    static std::vector<Annotation> annotationsOf(const TraceRecord& record);

private:
    struct Encounter; // an address was seen

    Track makeTrack(const TraceThread& thread) const;
    void giveNumbers();
    void findArrows();
    void collect(int track, std::vector<Encounter>& items, std::vector<Encounter>& messages) const;
    void connect(std::vector<Encounter>& encounters);
    bool belongTogether(const Encounter& from, const Encounter& to) const;
    void findDepths();

    const BusTrace& m_trace;
    qint64 m_end_ns = 0;
    std::vector<Track> m_tracks;
    std::vector<Arrow> m_arrows;
    std::vector<DepthTrack> m_depths;
};

} // namespace lxobserve

#endif
