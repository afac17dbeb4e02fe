#include "Connection.h"

#include <QFile>

#include <sys/stat.h>

#include <utility>

using lxclient::Error;

namespace lxlink {

namespace {

constexpr qint64 RequestMs = 2000;

Error errorOf(natsStatus status)
{
    return status == NATS_OK ? Error() : Error(QString::fromUtf8(natsStatus_GetText(status)));
}

template<class T, void (*destroy)(T*)>
struct Destroyer
{
    void operator()(T* object) const { destroy(object); }
};
using Options = std::unique_ptr<natsOptions, Destroyer<natsOptions, natsOptions_Destroy>>;
using Message = std::unique_ptr<natsMsg, Destroyer<natsMsg, natsMsg_Destroy>>;
using Subscription =
    std::unique_ptr<natsSubscription, Destroyer<natsSubscription, natsSubscription_Destroy>>;
using Api = std::unique_ptr<jsCtx, Destroyer<jsCtx, jsCtx_Destroy>>;
using Info = std::unique_ptr<jsStreamInfo, Destroyer<jsStreamInfo, jsStreamInfo_Destroy>>;
using Store = std::unique_ptr<kvStore, Destroyer<kvStore, kvStore_Destroy>>;
using Entry = std::unique_ptr<kvEntry, Destroyer<kvEntry, kvEntry_Destroy>>;

Api apiOf(natsConnection* connection)
{
    jsOptions options;
    jsOptions_Init(&options);
    options.Wait = RequestMs;
    jsCtx* api = nullptr;
    if (!connection || natsConnection_JetStream(&api, connection, &options) != NATS_OK)
        return nullptr;
    return Api(api);
}

const Error notConnected(QStringLiteral("not connected"));

} // namespace

Error Access::read(const QString& fileName, Access& access)
{
    QFile file(fileName);
    if (!file.open(QIODevice::ReadOnly))
        return Error(file.errorString()).about(QStringLiteral("--credentials ") + fileName);
    struct stat status = {}; // of what is open, whatever the name means meanwhile
    if (fstat(file.handle(), &status) != 0 || (status.st_mode & 077) != 0) {
        return Error(QStringLiteral("others may read it; chmod 600 makes it its owner's alone"))
            .about(QStringLiteral("--credentials ") + fileName);
    }
    access.user = file.readLine(256).trimmed();
    access.password = file.readLine(256).trimmed();
    if (access.user.isEmpty() || access.password.isEmpty()) {
        return Error(QStringLiteral("two lines are expected, user and password"))
            .about(QStringLiteral("--credentials ") + fileName);
    }
    return {};
}

Connection::Connection(Access access, QByteArray name, Buffer buffer, Events events)
    : m_access(std::move(access))
    , m_name(std::move(name))
    , m_buffer(buffer)
    , m_events(std::move(events))
{ }

Connection::~Connection()
{
    close();
}

Error Connection::open(bool& fatal)
{
    fatal = false;
    close();
    natsOptions* made = nullptr;
    if (const natsStatus status = natsOptions_Create(&made); status != NATS_OK)
        return errorOf(status);
    const Options options(made);
    const QByteArray server = m_access.server.toUtf8();
    natsOptions_SetURL(made, server.constData());
    natsOptions_SetName(made, m_name.constData());
    if (!m_access.user.isEmpty())
        natsOptions_SetUserInfo(made, m_access.user.constData(), m_access.password.constData());
    natsOptions_SetCustomInboxPrefix(made, m_access.inbox.constData());
    natsOptions_SetTimeout(made, RequestMs);
    natsOptions_SetMaxReconnect(made, -1);
    natsOptions_SetReconnectWait(made, 100);
    natsOptions_SetReconnectJitter(made, 50, 50);
    // stale quotes are worse than none; orders are published again anyway
    natsOptions_SetReconnectBufSize(made, m_buffer == Buffer::None ? 1 : 64 * 1024);
    natsOptions_SetPingInterval(made, 1000);
    natsOptions_SetMaxPingsOut(made, 2);
    natsOptions_SetIgnoreDiscoveredServers(made, true);
    natsOptions_SetMaxPendingMsgs(made, 65'536);
    natsOptions_SetErrorHandler(made, &Connection::onError, this);
    natsOptions_SetReconnectedCB(made, &Connection::onReconnected, this);
    natsOptions_SetDisconnectedCB(made, &Connection::onDisconnected, this);
    natsOptions_SetClosedCB(made, &Connection::onClosed, this);
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_closing_told = false;
    }
    natsConnection* connection = nullptr;
    const natsStatus status = natsConnection_Connect(&connection, made);
    const std::lock_guard<std::mutex> locker(m_mutex);
    if (status != NATS_OK) {
        m_closing_told = true;
        fatal = status == NATS_CONNECTION_AUTH_FAILED || status == NATS_NOT_PERMITTED;
        return errorOf(status).about(m_access.server);
    }
    m_handle.reset(connection, natsConnection_Destroy);
    m_closed = false;
    ++m_generation;
    return {};
}

// The library tells its closing on a thread of its own, after which it does not call any more.
void Connection::close()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    const std::shared_ptr<natsConnection> handle = std::exchange(m_handle, nullptr);
    if (!handle)
        return;
    locker.unlock();
    natsConnection_Close(handle.get());
    locker.lock();
    m_closed_told.wait_for(locker, std::chrono::seconds(5), [this] { return m_closing_told; });
}

bool Connection::isConnected() const
{
    const std::shared_ptr<natsConnection> connection = handle();
    return connection && natsConnection_Status(connection.get()) == NATS_CONN_STATUS_CONNECTED;
}

Error Connection::publish(const QByteArray& subject, const std::string& data,
                          const QByteArray& reply, const QByteArray& messageId)
{
    const std::shared_ptr<natsConnection> connection = handle();
    if (!connection)
        return notConnected;
    const int size = static_cast<int>(data.size());
    if (reply.isEmpty())
        return errorOf(
            natsConnection_Publish(connection.get(), subject.constData(), data.data(), size));
    natsMsg* made = nullptr;
    if (const natsStatus status =
            natsMsg_Create(&made, subject.constData(), reply.constData(), data.data(), size);
        status != NATS_OK)
        return errorOf(status);
    const Message message(made);
    if (!messageId.isEmpty())
        natsMsgHeader_Set(made, "Nats-Msg-Id", messageId.constData());
    return errorOf(natsConnection_PublishMsg(connection.get(), made));
}

Error Connection::flush()
{
    const std::shared_ptr<natsConnection> connection = handle();
    return connection ? errorOf(natsConnection_FlushTimeout(connection.get(), RequestMs))
                      : notConnected;
}

std::shared_ptr<natsConnection> Connection::handle() const
{
    const std::lock_guard<std::mutex> locker(m_mutex);
    return m_handle;
}

// One message of each subject: in memory the last, in a file the first.
Error Connection::ensureStream(const QByteArray& name, const QByteArray& subjects, bool inMemory)
{
    const std::shared_ptr<natsConnection> connection = handle();
    const Api api = apiOf(connection.get());
    if (!api)
        return notConnected;
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const char* all[] = {subjects.constData()};
    config.Name = name.constData();
    config.Subjects = all;
    config.SubjectsLen = 1;
    config.Storage = inMemory ? js_MemoryStorage : js_FileStorage;
    config.MaxMsgsPerSubject = 1;
    config.Discard = inMemory ? js_DiscardOld : js_DiscardNew;
    config.DiscardNewPerSubject = !inMemory;
    jsErrCode code{};
    jsStreamInfo* made = nullptr;
    const natsStatus status = js_AddStream(&made, api.get(), &config, nullptr, &code);
    const Info info(made);
    // where an administrator has made it otherwise, it is his
    return code == JSStreamNameExistErr ? Error() : errorOf(status).about(QString::fromUtf8(name));
}

Error Connection::ensureBucket(const char* name)
{
    const std::shared_ptr<natsConnection> connection = handle();
    const Api api = apiOf(connection.get());
    if (!api)
        return notConnected;
    kvConfig config;
    kvConfig_Init(&config);
    config.Bucket = name;
    config.History = 1;
    config.StorageType = js_MemoryStorage;
    kvStore* made = nullptr;
    natsStatus status = js_CreateKeyValue(&made, api.get(), &config);
    if (status != NATS_OK)
        status = js_KeyValue(&made, api.get(), name);
    const Store store(made);
    return errorOf(status).about(QString::fromUtf8(name));
}

Error Connection::publishStored(const QByteArray& subject, const std::string& data)
{
    const std::shared_ptr<natsConnection> connection = handle();
    const Api api = apiOf(connection.get());
    if (!api)
        return notConnected;
    return errorOf(js_Publish(nullptr, api.get(), subject.constData(), data.data(),
                              static_cast<int>(data.size()), nullptr, nullptr));
}

Error Connection::lastValue(const char* bucket, const QByteArray& key, QByteArray& value)
{
    const std::shared_ptr<natsConnection> connection = handle();
    const Api api = apiOf(connection.get());
    if (!api)
        return notConnected;
    kvStore* made = nullptr;
    natsStatus status = js_KeyValue(&made, api.get(), bucket);
    const Store store(made);
    if (status != NATS_OK)
        return errorOf(status).about(QString::fromUtf8(bucket));
    kvEntry* found = nullptr;
    status = kvStore_Get(&found, made, key.constData());
    const Entry entry(found);
    if (status == NATS_NOT_FOUND)
        return {};
    if (status == NATS_OK)
        value = QByteArray(static_cast<const char*>(kvEntry_Value(found)), kvEntry_ValueLen(found));
    return errorOf(status);
}

Error Connection::streamIdentity(const QByteArray& name, QString& identity, quint64& last)
{
    const std::shared_ptr<natsConnection> connection = handle();
    const Api api = apiOf(connection.get());
    if (!api)
        return notConnected;
    jsStreamInfo* found = nullptr;
    const natsStatus status =
        js_GetStreamInfo(&found, api.get(), name.constData(), nullptr, nullptr);
    const Info info(found);
    if (status != NATS_OK)
        return errorOf(status);
    identity = QString::number(found->Created);
    last = found->State.LastSeq;
    return {};
}

void Connection::onReconnected(natsConnection*, void* self)
{
    auto* const connection = static_cast<Connection*>(self);
    ++connection->m_generation;
    connection->m_events.changed();
}

void Connection::onDisconnected(natsConnection*, void* self)
{
    static_cast<Connection*>(self)->m_events.changed();
}

void Connection::onClosed(natsConnection*, void* self)
{
    auto* const connection = static_cast<Connection*>(self);
    connection->m_closed = true;
    connection->m_events.changed();
    const std::lock_guard<std::mutex> locker(connection->m_mutex);
    connection->m_closing_told = true;
    connection->m_closed_told.notify_all(); // with the lock: it may be gone right after
}

// The server says: Permissions Violation for Publish to "SUBJECT".
void Connection::onError(natsConnection* handle, natsSubscription*, natsStatus, void* self)
{
    const char* text = nullptr;
    natsConnection_GetLastError(handle, &text);
    const QByteArray words(text);
    const QByteArray before = "ublish to \"";
    const int begin = words.indexOf(before);
    if (begin < 0)
        return;
    const int from = begin + before.size();
    static_cast<Connection*>(self)->m_events.refused(
        words.mid(from, words.indexOf('"', from) - from));
}

Reader::Reader(Connection& connection, Subscribe subscribe, Handle handle,
               std::chrono::milliseconds pause, std::function<void()> idle)
    : m_connection(connection)
    , m_subscribe(std::move(subscribe))
    , m_handle(std::move(handle))
    , m_pause(pause)
    , m_idle(std::move(idle))
    , m_thread([this] { run(); })
{ }

Reader::~Reader()
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_stop = true;
    }
    m_stopped.notify_one();
    m_thread.join();
}

Reader::Subscribe Reader::plain(const QByteArray& subject)
{
    return [subject](natsConnection* connection, natsSubscription** subscription) {
        return natsConnection_SubscribeSync(subscription, connection, subject.constData());
    };
}

Reader::Subscribe Reader::stream(const QByteArray& subject, const QByteArray& stream,
                                 std::function<quint64(Connection&)> cursor, Connection& connection)
{
    return [=, &connection](natsConnection* handle, natsSubscription** subscription) {
        const Api api = apiOf(handle);
        if (!api)
            return NATS_ERR;
        jsSubOptions options;
        jsSubOptions_Init(&options);
        options.Ordered = true;
        options.Stream = stream.constData();
        options.Config.DeliverPolicy = js_DeliverByStartSequence;
        options.Config.OptStartSeq = cursor(connection) + 1;
        return js_SubscribeSync(subscription, api.get(), subject.constData(), nullptr, &options,
                                nullptr);
    };
}

Reader::Subscribe Reader::lastOfEach(const QByteArray& subject, const QByteArray& stream)
{
    return [=](natsConnection* handle, natsSubscription** subscription) {
        const Api api = apiOf(handle);
        if (!api)
            return NATS_ERR;
        jsSubOptions options;
        jsSubOptions_Init(&options);
        options.Ordered = true;
        options.Stream = stream.constData();
        options.Config.DeliverPolicy = js_DeliverLastPerSubject;
        return js_SubscribeSync(subscription, api.get(), subject.constData(), nullptr, &options,
                                nullptr);
    };
}

void Reader::run()
{
    Subscription subscription;
    std::shared_ptr<natsConnection> connection; // outlives its subscription
    quint64 generation = 0;
    for (;;) {
        {
            std::unique_lock<std::mutex> locker(m_mutex);
            const auto pause = subscription ? std::chrono::milliseconds(0) : m_pause;
            if (m_stopped.wait_for(locker, pause, [this] { return m_stop; }))
                return;
        }
        if (!subscription || generation != m_connection.generation()) {
            subscription.reset();
            generation = m_connection.generation();
            connection = m_connection.handle();
            natsSubscription* made = nullptr;
            if (!connection || !m_connection.isConnected()
                || m_subscribe(connection.get(), &made) != NATS_OK) {
                if (m_idle)
                    m_idle();
                continue;
            }
            subscription.reset(made);
        }
        natsMsg* next = nullptr;
        const natsStatus status =
            natsSubscription_NextMsg(&next, subscription.get(), m_pause.count());
        const Message message(next);
        if (status == NATS_TIMEOUT) {
            if (m_idle)
                m_idle();
        } else if (status == NATS_SLOW_CONSUMER) { // said once: what was dropped is a gap
            continue;
        } else if (status != NATS_OK) {
            subscription.reset();
        } else {
            quint64 sequence = 0;
            jsMsgMetaData* place = nullptr;
            if (natsMsg_GetReply(next) && natsMsg_GetMetaData(&place, next) == NATS_OK) {
                sequence = place->Sequence.Stream;
                jsMsgMetaData_Destroy(place);
            }
            m_handle({natsMsg_GetSubject(next), natsMsg_GetData(next), natsMsg_GetDataLength(next),
                      sequence, natsMsg_IsNoResponders(next)});
        }
    }
}

} // namespace lxlink
