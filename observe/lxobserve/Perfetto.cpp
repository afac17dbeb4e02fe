#include "Output.h"
#include "Timeline.h"
#include "TraceFormats.h"

#include <QCoreApplication>

#include <protozero/pbf_writer.hpp>

#include <algorithm>
#include <map>

namespace lxobserve {

namespace {

using protozero::pbf_writer;

// Numbers of the fields, by message.
namespace trace_packet {
constexpr int ClockSnapshot = 6;
constexpr int Timestamp = 8;
constexpr int SequenceId = 10;
constexpr int TrackEvent = 11;
constexpr int InternedData = 12;
constexpr int SequenceFlags = 13;
constexpr int TrackDescriptor = 60;
} // namespace trace_packet
namespace track_descriptor {
constexpr int Uuid = 1;
constexpr int Name = 2;
constexpr int Process = 3;
constexpr int Thread = 4;
constexpr int ParentUuid = 5;
constexpr int Counter = 8;
} // namespace track_descriptor
namespace track_event {
constexpr int DebugAnnotation = 4;
constexpr int Type = 9;
constexpr int NameIid = 10;
constexpr int TrackUuid = 11;
constexpr int CounterValue = 30;
constexpr int FlowIds = 47;
constexpr int TerminatingFlowIds = 48;
} // namespace track_event
namespace debug_annotation {
constexpr int NameIid = 1;
constexpr int BoolValue = 2;
constexpr int UintValue = 3;
constexpr int StringValueIid = 17;
} // namespace debug_annotation
namespace interned_data {
constexpr int EventNames = 2;
constexpr int DebugAnnotationNames = 3;
constexpr int DebugAnnotationStringValues = 29;
} // namespace interned_data

enum EventType { SliceBegin = 1, SliceEnd = 2, Instant = 3, Counter = 4 };
enum Clock { Realtime = 1, Boottime = 6 }; // the second is what the timestamps are taken for
enum SequenceFlag { StateCleared = 1, NeedsState = 2 };

constexpr int TracePacketField = 1; // of the whole file
constexpr int ProcessUuid = 1;      // threads and counters have those that follow
constexpr int Sequence = 1;         // there is but one

// Strings that the packets name by number. Numbers begin with 1.
class Interned
{
public:
    explicit Interned(int field)
        : m_field(field)
    { }

    // Adds a new string to the packet's interned data.
    quint64 number(const std::string& text, std::string& internedData)
    {
        const auto [known, isNew] = m_numbers.try_emplace(text, m_numbers.size() + 1);
        if (isNew) {
            pbf_writer data(internedData);
            pbf_writer entry(data, static_cast<protozero::pbf_tag_type>(m_field));
            entry.add_uint64(1, known->second);
            entry.add_string(2, text);
        }
        return known->second;
    }

private:
    const int m_field;
    std::map<std::string, quint64> m_numbers;
};

class PerfettoWriter
{
public:
    PerfettoWriter(const BusTrace& trace, QIODevice& device)
        : m_timeline(trace)
        , m_output(device)
    { }

    bool write(QString* error);

private:
    void writeStart();
    void writeTrack(int index, quint64 uuid);
    void writeSliceBegin(int track, int index, quint64 uuid);
    void writeInstant(const TraceRecord& record, quint64 uuid);
    void writeDepths(const DepthTrack& inbox, quint64 uuid);
    void addAnnotations(std::string& event, const TraceRecord& record, bool finished);
    void addName(std::string& event, const char* name);
    void writeEvent(qint64 ns, EventType type, quint64 uuid, const std::string& rest);
    void writePacket(const std::string& packet);

    const Timeline m_timeline;
    Output m_output;
    Interned m_names{interned_data::EventNames};
    Interned m_annotation_names{interned_data::DebugAnnotationNames};
    Interned m_words{interned_data::DebugAnnotationStringValues};
    std::vector<quint64> m_texts; // numbers of the trace's texts, 0: not used so far
    std::string m_interned_data;  // for the next packet
    std::map<std::pair<int, int>, std::vector<quint64>> m_arriving; // arrows, by track and slice
};

bool PerfettoWriter::write(QString* error)
{
    m_texts.resize(static_cast<std::size_t>(m_timeline.trace().texts.size()));
    for (const Arrow& arrow : m_timeline.arrows())
        m_arriving[{arrow.to_track, arrow.to_slice}].push_back(arrow.id);
    writeStart();
    quint64 uuid = ProcessUuid;
    for (std::size_t i = 0; i < m_timeline.tracks().size(); ++i)
        writeTrack(static_cast<int>(i), ++uuid);
    for (const DepthTrack& inbox : m_timeline.depths())
        writeDepths(inbox, ++uuid);
    return m_output.finish(error);
}

// The clock, and the process.
void PerfettoWriter::writeStart()
{
    std::string packet;
    pbf_writer start(packet);
    start.add_uint32(trace_packet::SequenceId, Sequence);
    start.add_uint32(trace_packet::SequenceFlags, StateCleared);
    {
        pbf_writer snapshot(start, trace_packet::ClockSnapshot);
        const std::pair<Clock, qint64> times[] = {
            {Boottime, m_timeline.trace().startedNs},
            {Realtime, m_timeline.trace().startedMs * 1'000'000},
        };
        for (const auto& [clock, ns] : times) {
            pbf_writer entry(snapshot, 1);
            entry.add_uint32(1, clock);
            entry.add_uint64(2, static_cast<quint64>(ns));
        }
    }
    writePacket(packet);

    packet.clear();
    pbf_writer process(packet);
    {
        pbf_writer descriptor(process, trace_packet::TrackDescriptor);
        descriptor.add_uint64(track_descriptor::Uuid, ProcessUuid);
        pbf_writer data(descriptor, track_descriptor::Process);
        const QString name = QCoreApplication::applicationName();
        data.add_int32(1, static_cast<qint32>(QCoreApplication::applicationPid()));
        data.add_string(6, name.isEmpty() ? std::string("lxbase") : name.toStdString());
    }
    writePacket(packet);
}

void PerfettoWriter::writeTrack(int index, quint64 uuid)
{
    const Track& track = m_timeline.tracks()[static_cast<std::size_t>(index)];
    {
        std::string packet;
        pbf_writer description(packet);
        {
            pbf_writer descriptor(description, trace_packet::TrackDescriptor);
            descriptor.add_uint64(track_descriptor::Uuid, uuid);
            descriptor.add_uint64(track_descriptor::ParentUuid, ProcessUuid);
            pbf_writer data(descriptor, track_descriptor::Thread);
            data.add_int32(1, static_cast<qint32>(QCoreApplication::applicationPid()));
            data.add_int64(2, static_cast<qint64>(track.number));
            data.add_string(5, track.name.toStdString());
        }
        writePacket(packet);
    }

    std::vector<qint64> ends; // of the slices that are open, outer before inner
    auto instant = track.instants.cbegin();
    const auto writeUpTo = [&](qint64 ns, bool all) {
        for (;;) {
            const bool instantLeft = instant != track.instants.cend();
            const qint64 instantNs = instantLeft ? m_timeline.record(index, *instant).timeNs : 0;
            if (!ends.empty() && (all || ends.back() <= ns)
                && (!instantLeft || ends.back() < instantNs)) {
                writeEvent(ends.back(), SliceEnd, uuid, std::string());
                ends.pop_back();
            } else if (instantLeft && (all || instantNs < ns)) {
                writeInstant(m_timeline.record(index, *instant), uuid);
                ++instant;
            } else {
                return;
            }
        }
    };
    for (std::size_t i = 0; i < track.slices.size(); ++i) {
        writeUpTo(track.slices[i].begin_ns, false);
        writeSliceBegin(index, static_cast<int>(i), uuid);
        ends.push_back(track.slices[i].end_ns);
    }
    writeUpTo(0, true);
}

void PerfettoWriter::writeSliceBegin(int track, int index, quint64 uuid)
{
    const Slice& slice = m_timeline.tracks()[static_cast<std::size_t>(track)]
                             .slices[static_cast<std::size_t>(index)];
    const TraceRecord& record = m_timeline.record(track, slice.record);
    std::string rest;
    addName(rest, Timeline::nameOf(record));
    addAnnotations(rest, record, slice.finished);
    pbf_writer event(rest);
    const auto& arrows = m_timeline.arrows();
    auto arrow =
        std::lower_bound(arrows.begin(), arrows.end(), std::make_pair(track, index),
                         [](const Arrow& one, const std::pair<int, int>& wanted) {
                             return std::make_pair(one.from_track, one.from_slice) < wanted;
                         });
    for (; arrow != arrows.end() && arrow->from_track == track && arrow->from_slice == index;
         ++arrow)
        event.add_fixed64(track_event::FlowIds, arrow->id);
    if (const auto arriving = m_arriving.find({track, index}); arriving != m_arriving.end()) {
        for (const quint64 id : arriving->second)
            event.add_fixed64(track_event::TerminatingFlowIds, id);
    }
    writeEvent(slice.begin_ns, SliceBegin, uuid, rest);
}

void PerfettoWriter::writeInstant(const TraceRecord& record, quint64 uuid)
{
    std::string rest;
    addName(rest, Timeline::nameOf(record));
    addAnnotations(rest, record, true);
    writeEvent(record.timeNs, Instant, uuid, rest);
}

void PerfettoWriter::writeDepths(const DepthTrack& inbox, quint64 uuid)
{
    std::string packet;
    pbf_writer description(packet);
    {
        pbf_writer descriptor(description, trace_packet::TrackDescriptor);
        descriptor.add_uint64(track_descriptor::Uuid, uuid);
        descriptor.add_uint64(track_descriptor::ParentUuid, ProcessUuid);
        descriptor.add_string(track_descriptor::Name, inbox.name.toStdString());
        pbf_writer(descriptor, track_descriptor::Counter);
    }
    writePacket(packet);
    for (const Depth& depth : inbox.depths) {
        std::string rest;
        pbf_writer(rest).add_int64(track_event::CounterValue, static_cast<qint64>(depth.waiting));
        writeEvent(depth.time_ns, Counter, uuid, rest);
    }
}

void PerfettoWriter::addAnnotations(std::string& event, const TraceRecord& record, bool finished)
{
    pbf_writer writer(event);
    for (const Annotation& annotation : Timeline::annotationsOf(record)) {
        pbf_writer entry(writer, track_event::DebugAnnotation);
        entry.add_uint64(debug_annotation::NameIid,
                         m_annotation_names.number(annotation.name, m_interned_data));
        if (annotation.text > 0 && annotation.text < m_texts.size()) {
            quint64& number = m_texts[annotation.text];
            if (number == 0)
                number = m_words.number(m_timeline.trace().text(annotation.text).toStdString(),
                                        m_interned_data);
            entry.add_uint64(debug_annotation::StringValueIid, number);
        } else if (annotation.words) {
            entry.add_uint64(debug_annotation::StringValueIid,
                             m_words.number(annotation.words, m_interned_data));
        } else {
            entry.add_uint64(debug_annotation::UintValue, annotation.number);
        }
    }
    if (!finished) {
        pbf_writer entry(writer, track_event::DebugAnnotation);
        entry.add_uint64(debug_annotation::NameIid,
                         m_annotation_names.number("unfinished", m_interned_data));
        entry.add_bool(debug_annotation::BoolValue, true);
    }
}

void PerfettoWriter::addName(std::string& event, const char* name)
{
    pbf_writer(event).add_uint64(track_event::NameIid, m_names.number(name, m_interned_data));
}

// With the strings that it names for the first time.
void PerfettoWriter::writeEvent(qint64 ns, EventType type, quint64 uuid, const std::string& rest)
{
    std::string packet;
    pbf_writer writer(packet);
    writer.add_uint64(trace_packet::Timestamp, static_cast<quint64>(ns));
    writer.add_uint32(trace_packet::SequenceId, Sequence);
    writer.add_uint32(trace_packet::SequenceFlags, NeedsState);
    if (!m_interned_data.empty())
        writer.add_message(trace_packet::InternedData, m_interned_data);
    m_interned_data.clear();
    {
        pbf_writer event(writer, trace_packet::TrackEvent);
        event.add_enum(track_event::Type, type);
        event.add_uint64(track_event::TrackUuid, uuid);
        packet += rest; // fields may come in any order
    }
    writePacket(packet);
}

void PerfettoWriter::writePacket(const std::string& packet)
{
    pbf_writer(m_output.buffer()).add_message(TracePacketField, packet);
    m_output.mayWrite();
}

} // namespace

bool writePerfetto(const BusTrace& trace, QIODevice& device, QString* error)
{
    return PerfettoWriter(trace, device).write(error);
}

} // namespace lxobserve
