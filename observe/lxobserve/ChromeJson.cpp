#include "Output.h"
#include "Timeline.h"
#include "TraceFormats.h"

#include <QCoreApplication>
#include <QDateTime>

#include <algorithm>

namespace lxobserve {

namespace {

// With the quotes around it.
std::string quoted(const QString& text)
{
    std::string json = "\"";
    const QByteArray utf8 = text.toUtf8();
    for (const char character : utf8) {
        const auto code = static_cast<unsigned char>(character);
        if (character == '"' || character == '\\') {
            json += '\\';
            json += character;
        } else if (code < 0x20) {
            static const char digits[] = "0123456789abcdef";
            json += "\\u00";
            json += digits[code >> 4];
            json += digits[code & 15];
        } else {
            json += character;
        }
    }
    return json + '"';
}

class JsonWriter
{
public:
    JsonWriter(const BusTrace& trace, QIODevice& device);

    bool write(QString* error);

private:
    void writeTrack(int index);
    void writeSlice(int track, const Slice& slice);
    void writeInstant(int track, const TraceRecord& record);
    void writeArrowEnd(quint64 track, qint64 ns, const Arrow& arrow, bool begins);
    void writeDepths();
    void beginEvent(const char* phase, const std::string& name);
    void addThread(quint64 number);
    void addTime(const char* name, qint64 ns);
    void addAnnotations(const TraceRecord& record, bool finished);
    void describe(const char* what, const std::string& name, const Track* track);

    const Timeline m_timeline;
    Output m_output;
    std::string& m_json;
    const std::string m_process = std::to_string(QCoreApplication::applicationPid());
    std::vector<std::string> m_texts;   // of the trace, quoted
    std::vector<Arrow> m_arrows_by_end; // by track and slice they lead to
    bool m_first = true;
};

JsonWriter::JsonWriter(const BusTrace& trace, QIODevice& device)
    : m_timeline(trace)
    , m_output(device)
    , m_json(m_output.buffer())
    , m_arrows_by_end(m_timeline.arrows())
{
    for (const QString& text : trace.texts)
        m_texts.push_back(quoted(text));
    std::sort(
        m_arrows_by_end.begin(), m_arrows_by_end.end(), [](const Arrow& one, const Arrow& other) {
            return std::tie(one.to_track, one.to_slice) < std::tie(other.to_track, other.to_slice);
        });
}

bool JsonWriter::write(QString* error)
{
    const BusTrace& trace = m_timeline.trace();
    m_json +=
        R"({"displayTimeUnit":"ns","otherData":{"overwritten":")"
        + std::to_string(trace.overwritten) + R"(","started":)"
        + quoted(
            QDateTime::fromMSecsSinceEpoch(trace.startedMs, Qt::UTC).toString(Qt::ISODateWithMs))
        + R"(},"traceEvents":[)";
    const QString name = QCoreApplication::applicationName();
    describe("process_name", quoted(name.isEmpty() ? QStringLiteral("lxbase") : name), nullptr);
    for (std::size_t i = 0; i < m_timeline.tracks().size(); ++i)
        writeTrack(static_cast<int>(i));
    writeDepths();
    m_json += "\n]}\n";
    return m_output.finish(error);
}

// Everything in the order of its time.
void JsonWriter::writeTrack(int index)
{
    const Track& track = m_timeline.tracks()[static_cast<std::size_t>(index)];
    describe("thread_name", quoted(track.name), &track);

    const auto& leaving = m_timeline.arrows();
    const auto byTrack = [](const Arrow& arrow, int wanted) { return arrow.from_track < wanted; };
    auto arrow = std::lower_bound(leaving.begin(), leaving.end(), index, byTrack);
    const auto arrowsEnd = std::lower_bound(arrow, leaving.end(), index + 1, byTrack);
    std::vector<Arrow> left(arrow, arrowsEnd);
    std::stable_sort(left.begin(), left.end(), [](const Arrow& one, const Arrow& other) {
        return one.from_ns < other.from_ns;
    });
    auto arriving =
        std::lower_bound(m_arrows_by_end.begin(), m_arrows_by_end.end(), index,
                         [](const Arrow& one, int wanted) { return one.to_track < wanted; });

    auto leave = left.cbegin();
    auto instant = track.instants.cbegin();
    const auto writeUpTo = [&](qint64 ns, bool all) {
        for (;;) {
            const bool arrowLeft = leave != left.cend();
            const bool instantLeft = instant != track.instants.cend();
            const qint64 instantNs = instantLeft ? m_timeline.record(index, *instant).timeNs : 0;
            if (arrowLeft && (!instantLeft || leave->from_ns <= instantNs)
                && (all || leave->from_ns < ns)) {
                writeArrowEnd(track.number, leave->from_ns, *leave, true);
                ++leave;
            } else if (instantLeft && (!arrowLeft || instantNs < leave->from_ns)
                       && (all || instantNs < ns)) {
                writeInstant(index, m_timeline.record(index, *instant));
                ++instant;
            } else {
                return;
            }
        }
    };
    for (std::size_t i = 0; i < track.slices.size(); ++i) {
        const Slice& slice = track.slices[i];
        writeUpTo(slice.begin_ns, false);
        writeSlice(index, slice);
        for (; arriving != m_arrows_by_end.end() && arriving->to_track == index
             && arriving->to_slice == static_cast<int>(i);
             ++arriving)
            writeArrowEnd(track.number, slice.begin_ns, *arriving, false);
    }
    writeUpTo(0, true);
}

void JsonWriter::writeSlice(int track, const Slice& slice)
{
    const TraceRecord& record = m_timeline.record(track, slice.record);
    beginEvent("X", quoted(QLatin1String(Timeline::nameOf(record))));
    addThread(m_timeline.tracks()[static_cast<std::size_t>(track)].number);
    addTime("ts", slice.begin_ns - m_timeline.trace().startedNs);
    addTime("dur", slice.end_ns - slice.begin_ns);
    addAnnotations(record, slice.finished);
}

void JsonWriter::writeInstant(int track, const TraceRecord& record)
{
    beginEvent("i", quoted(QLatin1String(Timeline::nameOf(record))));
    addThread(m_timeline.tracks()[static_cast<std::size_t>(track)].number);
    addTime("ts", record.timeNs - m_timeline.trace().startedNs);
    m_json += R"(,"s":"t")";
    addAnnotations(record, true);
}

// Each end belongs to the slice that it lies in.
void JsonWriter::writeArrowEnd(quint64 track, qint64 ns, const Arrow& arrow, bool begins)
{
    beginEvent(begins ? "s" : "f", "\"way\"");
    addThread(track);
    addTime("ts", ns - m_timeline.trace().startedNs);
    m_json += R"(,"cat":"way","id":)" + std::to_string(arrow.id);
    m_json += begins ? "}" : R"(,"bp":"e"})";
    m_output.mayWrite();
}

void JsonWriter::writeDepths()
{
    for (const DepthTrack& inbox : m_timeline.depths()) {
        const std::string name = quoted(inbox.name);
        for (const Depth& depth : inbox.depths) {
            beginEvent("C", name);
            addTime("ts", depth.time_ns - m_timeline.trace().startedNs);
            m_json += R"(,"args":{"waiting":)" + std::to_string(depth.waiting) + "}}";
            m_output.mayWrite();
        }
    }
}

void JsonWriter::beginEvent(const char* phase, const std::string& name)
{
    m_json += m_first ? "\n{\"ph\":\"" : ",\n{\"ph\":\"";
    m_first = false;
    m_json += phase;
    m_json += R"(","name":)" + name + R"(,"pid":)" + m_process;
}

void JsonWriter::addThread(quint64 number)
{
    m_json += R"(,"tid":)" + std::to_string(number);
}

// In microseconds, to the nanosecond.
void JsonWriter::addTime(const char* name, qint64 ns)
{
    m_json += ",\"";
    m_json += name;
    m_json += "\":";
    if (ns < 0)
        m_json += '-';
    const auto size = static_cast<quint64>(std::abs(ns));
    const std::string fraction = std::to_string(1000 + size % 1000);
    m_json += std::to_string(size / 1000) + '.' + fraction.substr(1);
}

// And the end of the event.
void JsonWriter::addAnnotations(const TraceRecord& record, bool finished)
{
    m_json += R"(,"args":{)";
    const char* separator = "\"";
    for (const Annotation& annotation : Timeline::annotationsOf(record)) {
        m_json += separator;
        m_json += annotation.name;
        m_json += "\":";
        if (annotation.text > 0 && annotation.text < m_texts.size())
            m_json += m_texts[annotation.text];
        else if (annotation.words)
            m_json += quoted(QLatin1String(annotation.words));
        else
            m_json += std::to_string(annotation.number);
        separator = ",\"";
    }
    if (!finished) {
        m_json += separator;
        m_json += "unfinished\":true";
    }
    m_json += "}}";
    m_output.mayWrite();
}

void JsonWriter::describe(const char* what, const std::string& name, const Track* track)
{
    beginEvent("M", quoted(QLatin1String(what)));
    if (track)
        addThread(track->number);
    m_json += R"(,"args":{"name":)" + name + "}}";
}

} // namespace

bool writeChromeJson(const BusTrace& trace, QIODevice& device, QString* error)
{
    return JsonWriter(trace, device).write(error);
}

} // namespace lxobserve
