#include <lxbase/TraceRecorder.h>

#include <lxbase/LxbaseLog.h>
#include <lxbase/Owned.h>
#include <lxbase/ThreadLocal.h>

#include <lxplatform/ThreadNumber.h>

#include <QDateTime>
#include <QHash>
#include <QMap>
#include <QMutex>
#include <QThread>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstddef>
#include <cstring>
#include <deque>
#include <memory>
#include <new>
#include <utility>
#include <vector>

namespace lxbase::detail {

namespace {

// As it lies in memory. The text of a trace ID follows its record in records of kind Text, which
// have it in the first three fields and its length in `type`.
struct RawRecord
{
    qint64 timeNs;
    quint64 item;
    quint64 number;
    quint16 type;
    quint16 source;
    quint16 destination;
    quint8 kind;
    quint8 detail;
};
static_assert(sizeof(RawRecord) == 32);

constexpr quint8 Text = 255;
constexpr int TextBytes = offsetof(RawRecord, type);
constexpr int MaxTextRecords = 8; // the rest of a longer trace ID is left out

// The strings of one thread; of the thread alone, save what says otherwise.
class StringTable
{
public:
    explicit StringTable(quint64 serial)
        : m_serial(serial)
    {
        QThread* const thread = QThread::currentThread();
        m_name = thread ? owned(thread->objectName()) : QString();
        if (m_name.isEmpty())
            m_name = QStringLiteral("Thread %1").arg(m_number);
    }
    ~StringTable() { bytesOfAll.fetch_sub(m_bytes, std::memory_order_relaxed); }
    Q_DISABLE_COPY(StringTable)

    // The number of a string, or of a type's text. A chunk begins with a table that has room for
    // all its records.
    quint16 numberOf(const QString& text)
    {
        if (text.isEmpty())
            return 0;
        Recent& recent = m_recent[recentIndexOf(text)];
        if (!areEqual(recent.text, text)) {
            const auto found = m_numbers.constFind(text);
            const quint16 number = found != m_numbers.constEnd() ? *found : add(owned(text));
            recent = {m_texts.at(number), number};
        }
        return recent.number;
    }

    quint16 numberOf(const QVariant& type)
    {
        if (type.userType() == QMetaType::QString)
            return numberOf(type.toString());
        if (type.userType() != QMetaType::Int)
            return numberOf(textOf(type));
        const int number = type.toInt();
        if (m_last_int_number == 0 || number != m_last_int) {
            m_last_int = number;
            m_last_int_number = numberOf(QString::number(number));
        }
        return m_last_int_number;
    }

    bool hasRoom() const { return m_numbers.size() < MaxTexts; }

    // any thread
    QVector<QString> texts() const
    {
        const QMutexLocker locker(&m_mutex);
        QVector<QString> copy = m_texts;
        copy.detach(); // storage that is shared would be read without the mutex
        return copy;
    }
    const QString& name() const { return m_name; }
    quint64 number() const { return m_number; }
    quint64 serial() const { return m_serial; } // of the thread, even if its number comes again

    static qint64 bytes() { return bytesOfAll.load(std::memory_order_relaxed); }

private:
    static constexpr int MaxTexts = 1024;
    static constexpr qint64 BytesPerText = 120; // beside the characters: entries of hash and vector

    // The strings of the last messages are mostly those of the next ones.
    struct Recent
    {
        QString text;
        quint16 number = 0;
    };
    static constexpr std::size_t RecentCount = 16;

    static bool areEqual(const QString& a, const QString& b) // without a call into Qt
    {
        return a.size() == b.size()
            && std::memcmp(a.constData(), b.constData(), sizeof(QChar) * std::size_t(a.size()))
            == 0;
    }

    static std::size_t recentIndexOf(const QString& text)
    {
        const int size = text.size();
        const auto at = [&](int k) { return std::size_t(text.at(k).unicode()); };
        return (std::size_t(size) + at(size - 1) + 3 * at(size / 2)) % RecentCount;
    }

    static QString textOf(const QVariant& type)
    {
        const QString text = type.toString();
        return text.isEmpty() ? QString::fromLatin1(type.typeName()) : text;
    }

    quint16 add(const QString& text)
    {
        QMutexLocker locker(&m_mutex);
        const auto number = static_cast<quint16>(m_texts.size());
        m_texts.append(text);
        locker.unlock();
        m_numbers.insert(text, number);
        const qint64 bytes = BytesPerText + qint64(2) * text.size();
        m_bytes += bytes;
        bytesOfAll.fetch_add(bytes, std::memory_order_relaxed);
        return number;
    }

    inline static std::atomic<qint64> bytesOfAll{0};

    const quint64 m_number = lxplatform::currentThreadNumber();
    const quint64 m_serial;
    QString m_name;
    QHash<QString, quint16> m_numbers{{QString(), 0}};
    std::array<Recent, RecentCount> m_recent;
    int m_last_int = 0;
    quint16 m_last_int_number = 0; // 0: there was none
    qint64 m_bytes = 0;

    mutable QMutex m_mutex;
    QVector<QString> m_texts{QString()}; // changed by the thread with m_mutex held
};

// Written by one thread from the beginning to the end, never changed afterwards.
struct Chunk
{
    static constexpr int Size = 252; // records: 8 KiB with the rest

    explicit Chunk(std::shared_ptr<StringTable> strings, quint64 session_)
        : table(std::move(strings))
        , session(session_)
    { }

    const std::shared_ptr<StringTable> table;
    const quint64 session;    // of recording
    std::atomic<int> used{0}; // records that may be read
    quint64 count = 0;        // of them, without those of kind Text; the writer's
    std::array<RawRecord, Size> records;
};

struct Writer;

// The chunks of all threads. Never destroyed: a thread may end at any time.
class Store
{
public:
    static Store& instance()
    {
        static auto* const store = new Store;
        return *store;
    }

    void start(qint64 bytes)
    {
        std::deque<std::shared_ptr<Chunk>> full; // freed after the lock
        const QMutexLocker locker(&m_mutex);
        full.swap(m_full);
        m_current.clear();
        m_overwritten = 0;
        m_bytes = bytes;
        m_started_ns = monotonicNs();
        m_started_ms = QDateTime::currentMSecsSinceEpoch();
        m_session.fetch_add(1, std::memory_order_relaxed);
        monitorSwitches.traces = true;
    }

    quint64 session() const { return m_session.load(std::memory_order_relaxed); }

    // The writer's chunk is full, or of an earlier session, or there is none: it gets another one,
    // or none if all the memory is in other threads' hands.
    void exchange(Writer& writer);

    // What the thread has written stays.
    void retire(const std::shared_ptr<Chunk>& chunk)
    {
        const QMutexLocker locker(&m_mutex);
        moveToFull(chunk);
    }

    BusTrace take();

private:
    void moveToFull(const std::shared_ptr<Chunk>& chunk)
    {
        const auto found = std::find(m_current.begin(), m_current.end(), chunk);
        if (found == m_current.end()) // null, or of an earlier session
            return;
        m_full.push_back(std::move(*found));
        m_current.erase(found);
    }

    std::atomic<quint64> m_session{0};

    QMutex m_mutex;
    // guarded by m_mutex; no other lock is taken inside, save those of the string tables
    std::deque<std::shared_ptr<Chunk>> m_full; // oldest first
    std::vector<std::shared_ptr<Chunk>> m_current;
    quint64 m_threads = 0; // that have ever written
    quint64 m_overwritten = 0;
    qint64 m_bytes = 0;
    qint64 m_started_ns = 0;
    qint64 m_started_ms = 0;
};

// The present thread's.
struct Writer
{
    std::shared_ptr<StringTable> table;
    std::shared_ptr<Chunk> chunk;
    quint64 serial = 0; // of the thread; 0: not given yet
    qint64 lastNs = 0;

    ~Writer() { Store::instance().retire(chunk); }

    qint64 stamp()
    {
        lastNs = std::max(monotonicNs(), lastNs + 2);
        return lastNs;
    }

    void write(const TraceEntry& entry)
    {
        const QByteArray text =
            entry.traceId && !entry.traceId->isEmpty() ? entry.traceId->toUtf8() : QByteArray();
        const int textRecords = std::min((text.size() + TextBytes - 1) / TextBytes, MaxTextRecords);
        Store& store = Store::instance();
        if (!chunk || chunk->session != store.session()
            || chunk->used.load(std::memory_order_relaxed) + 1 + textRecords > Chunk::Size)
            store.exchange(*this);
        if (!chunk)
            return;
        int used = chunk->used.load(std::memory_order_relaxed);
        RawRecord& record = chunk->records[static_cast<std::size_t>(used++)];
        record.timeNs = entry.timeNs ? entry.timeNs : stamp();
        record.item = reinterpret_cast<quintptr>(entry.item);
        record.number = entry.number;
        record.type = entry.type ? table->numberOf(*entry.type) : quint16(0);
        record.source = entry.source ? table->numberOf(*entry.source) : quint16(0);
        record.destination = entry.destination ? table->numberOf(*entry.destination) : quint16(0);
        record.kind = static_cast<quint8>(entry.kind);
        record.detail = entry.detail;
        for (int k = 0; k < textRecords; ++k) {
            RawRecord& part = chunk->records[static_cast<std::size_t>(used++)];
            const int bytes = std::min(TextBytes, text.size() - k * TextBytes);
            std::memcpy(static_cast<void*>(&part), text.constData() + qsizetype(k) * TextBytes,
                        static_cast<std::size_t>(bytes));
            part.type = static_cast<quint16>(bytes);
            part.kind = Text;
        }
        ++chunk->count;
        chunk->used.store(used, std::memory_order_release);
    }
};

void Store::exchange(Writer& writer)
{
    const QMutexLocker locker(&m_mutex);
    moveToFull(writer.chunk);
    writer.chunk.reset();
    if (writer.serial == 0)
        writer.serial = ++m_threads;
    const auto bytes = [&] {
        const std::size_t chunks = m_full.size() + m_current.size() + 1;
        return static_cast<qint64>(chunks * sizeof(Chunk)) + StringTable::bytes();
    };
    while (bytes() > m_bytes && !m_full.empty()) {
        m_overwritten += m_full.front()->count;
        m_full.pop_front();
    }
    if (bytes() > m_bytes) {
        ++m_overwritten;
        return;
    }
    if (!writer.table || !writer.table->hasRoom())
        writer.table = std::make_shared<StringTable>(writer.serial);
    writer.chunk = std::make_shared<Chunk>(writer.table, session());
    m_current.push_back(writer.chunk);
}

// Numbers of strings for the reader, the same for all threads.
class Texts
{
public:
    quint32 numberOf(const QString& text)
    {
        const auto found = m_numbers.constFind(text);
        if (found != m_numbers.constEnd())
            return *found;
        const auto number = static_cast<quint32>(m_texts.size());
        m_texts.append(text);
        m_numbers.insert(text, number);
        return number;
    }
    const QVector<QString>& texts() const { return m_texts; }

private:
    QHash<QString, quint32> m_numbers{{QString(), 0}};
    QVector<QString> m_texts{QString()};
};

bool hasDuration(TraceKind kind)
{
    return kind == TraceKind::Put || kind == TraceKind::Route || kind == TraceKind::Reg;
}

bool hasPath(TraceKind kind)
{
    return kind == TraceKind::Put || kind == TraceKind::Route || kind == TraceKind::Lost;
}

// Appends what the chunk has now.
void read(const Chunk& chunk, Texts& texts, QVector<TraceRecord>& records)
{
    const int used = chunk.used.load(std::memory_order_acquire);
    QVector<quint32> numbers;
    const QVector<QString> own = chunk.table->texts(); // has all that the records up to used name
    numbers.reserve(own.size());
    for (const QString& text : own)
        numbers.append(texts.numberOf(text));
    for (int k = 0; k < used;) {
        const RawRecord& raw = chunk.records[static_cast<std::size_t>(k++)];
        TraceRecord record;
        record.timeNs = raw.timeNs;
        record.item = raw.item;
        record.kind = static_cast<TraceKind>(raw.kind);
        if (hasDuration(record.kind))
            record.durationNs = static_cast<qint64>(raw.number);
        else
            record.number = raw.number;
        if (hasPath(record.kind))
            record.path = static_cast<PutPath>(raw.detail);
        else
            record.inbox = static_cast<InboxKind>(raw.detail);
        record.type = numbers.at(raw.type);
        record.source = numbers.at(raw.source);
        record.destination = numbers.at(raw.destination);
        QByteArray traceId;
        for (; k < used && chunk.records[static_cast<std::size_t>(k)].kind == Text; ++k) {
            const RawRecord& part = chunk.records[static_cast<std::size_t>(k)];
            traceId.append(reinterpret_cast<const char*>(&part), part.type);
        }
        if (!traceId.isEmpty())
            record.traceId = texts.numberOf(QString::fromUtf8(traceId));
        records.append(record);
    }
}

BusTrace Store::take()
{
    BusTrace trace;
    QMutexLocker locker(&m_mutex);
    std::vector<std::shared_ptr<Chunk>> chunks(m_full.begin(), m_full.end());
    chunks.insert(chunks.end(), m_current.begin(), m_current.end());
    trace.overwritten = m_overwritten;
    trace.startedNs = m_started_ns;
    trace.startedMs = m_started_ms;
    locker.unlock();

    Texts texts;
    QMap<quint64, TraceThread> threads; // by serial
    for (const auto& chunk : chunks) {
        TraceThread& thread = threads[chunk->table->serial()];
        thread.name = chunk->table->name();
        thread.number = chunk->table->number();
        read(*chunk, texts, thread.records);
    }
    for (TraceThread& thread : threads) {
        std::sort(thread.records.begin(), thread.records.end(),
                  [](const TraceRecord& a, const TraceRecord& b) { return a.timeNs < b.timeNs; });
        trace.threads.append(thread);
    }
    trace.texts = texts.texts();
    return trace;
}

// The present thread's. Trivial, so that what is recorded from a destructor at the end of the
// thread still finds it.
struct ThreadState
{
    Writer* writer;
    bool ended;
};
LXBASE_THREAD_LOCAL thread_local ThreadState threadState{nullptr, false};

struct OwnWriter
{
    Writer writer;
    OwnWriter() { threadState.writer = &writer; }
    ~OwnWriter() { threadState = {nullptr, true}; }
};

// Null at the end of the thread, when there is nobody left to write for.
Writer* presentWriter()
{
    if (!threadState.writer && !threadState.ended)
        thread_local const OwnWriter ownWriter;
    return threadState.writer;
}

} // namespace

void TraceRecorder::start(int mebibytes)
{
    if (mebibytes < 1) {
        qCCritical(lcLxbase) << "startTrace with" << mebibytes << "MiB, at least 1, refused";
        return;
    }
    Store::instance().start(qint64(mebibytes) << 20);
}

void TraceRecorder::stop()
{
    monitorSwitches.traces = false;
}

BusTrace TraceRecorder::take()
{
    return Store::instance().take();
}

qint64 TraceRecorder::stamp() noexcept
{
    Writer* const writer = presentWriter();
    return writer ? writer->stamp() : monotonicNs();
}

qint64 TraceRecorder::stampBehindLast() noexcept
{
    Writer* const writer = presentWriter();
    return writer && writer->lastNs > 0 ? ++writer->lastNs : stamp();
}

void TraceRecorder::record(const TraceEntry& entry) noexcept
{
    Writer* const writer = presentWriter();
    if (!writer)
        return;
    try {
        writer->write(entry);
    } catch (const std::bad_alloc&) { // the trace has a gap
    }
}

TracedPut::TracedPut(PutPath path, const QString& source, const QVariant& type)
    : m_path(path)
    , m_source(source)
    , m_type(type)
{ }

TracedPut::~TracedPut() = default;

void TracedPut::beginAppend()
{
    m_append_ns = m_append_ns ? TraceRecorder::stamp() : m_begin_ns + 1;
}

void TracedPut::endAppend(const QString& receiver, const void* item, int waiting) const
{
    const InboxKind inbox = m_path == PutPath::PutEvent ? InboxKind::Events
        : m_path == PutPath::PutQuotationMsg            ? InboxKind::Quotations
                                                        : InboxKind::Messages;
    TraceEntry entry{TraceKind::Append};
    entry.detail = static_cast<quint8>(inbox);
    entry.timeNs = m_append_ns;
    entry.number = static_cast<quint64>(waiting);
    entry.item = item;
    entry.destination = &receiver;
    TraceRecorder::record(entry);
}

void TracedPut::end(TraceKind kind, const QString& destination, const QString& traceId,
                    const void* message)
{
    begin();
    TraceEntry entry{kind};
    entry.detail = static_cast<quint8>(m_path);
    entry.timeNs = m_begin_ns;
    entry.number = static_cast<quint64>(TraceRecorder::stamp() - m_begin_ns);
    entry.item = message;
    entry.type = &m_type;
    entry.source = &m_source;
    entry.destination = &destination;
    entry.traceId = &traceId;
    TraceRecorder::record(entry);
}

} // namespace lxbase::detail
