// Connection, Reader: the server, as the link uses it.
#ifndef LXCLIENT_LINK_CONNECTION_H
#define LXCLIENT_LINK_CONNECTION_H

#include <lxclient/Error.h>

#include <QByteArray>
#include <QString>

#include <nats/nats.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace lxlink {

// How to reach the server. The password is told nobody.
struct Access
{
    QString server;
    QByteArray user;
    QByteArray password;
    QByteArray inbox; // begins the subjects of what the server answers, "_INBOX.NAME"

    // From a file with two lines that nobody but its owner may read.
    static lxclient::Error read(const QString& fileName, Access& access);
};

// One connection, which comes back by itself for as long as it takes. All operations from any
// thread; each returns at once but for those that ask the server.
class Connection
{
public:
    // What happens on threads of the client library: neither may wait, nor use the connection.
    struct Events
    {
        std::function<void()> changed;                          // connected, or not any more
        std::function<void(const QByteArray& subject)> refused; // not permitted to publish there
    };
    enum class Buffer { None, Small }; // for what is published while there is no connection

    Connection(Access access, QByteArray name, Buffer buffer, Events events);
    // When no other thread uses it.
    ~Connection();
    Q_DISABLE_COPY(Connection)

    // Connects if it has never been, or was closed for good. `fatal`: it will not get better.
    lxclient::Error open(bool& fatal);

    bool isConnected() const;
    bool isClosed() const { return m_closed; }

    // Counts up with each time that it was connected: whatever the server does not remember is to
    // be told again.
    quint64 generation() const { return m_generation; }

    lxclient::Error publish(const QByteArray& subject, const std::string& data,
                            const QByteArray& reply = {}, const QByteArray& messageId = {});
    // Waits until the server has all.
    lxclient::Error flush();

    // Valid while somebody holds it; null: not opened.
    std::shared_ptr<natsConnection> handle() const;

    // Ask the server, 2 s at most.
    lxclient::Error ensureStream(const QByteArray& name, const QByteArray& subjects, bool inMemory);
    lxclient::Error ensureBucket(const char* name);
    lxclient::Error publishStored(const QByteArray& subject, const std::string& data);
    // The last value of a key; empty: there is none.
    lxclient::Error lastValue(const char* bucket, const QByteArray& key, QByteArray& value);
    // Which stream it is: one made anew is another; and the last sequence in it.
    lxclient::Error streamIdentity(const QByteArray& name, QString& identity, quint64& last);

private:
    static void onReconnected(natsConnection*, void* self);
    static void onDisconnected(natsConnection*, void* self);
    static void onClosed(natsConnection*, void* self);
    static void onError(natsConnection*, natsSubscription*, natsStatus, void* self);
    void close();

    const Access m_access;
    const QByteArray m_name;
    const Buffer m_buffer;
    const Events m_events;

    // atomic: set by the client library's threads, read by all
    std::atomic<quint64> m_generation{0};
    std::atomic<bool> m_closed{true};

    mutable std::mutex m_mutex;
    std::condition_variable m_closed_told;
    std::shared_ptr<natsConnection> m_handle; // guarded by m_mutex
    bool m_closing_told = true;               // guarded by m_mutex
};

// What a reader is given. Valid during the call.
struct Incoming
{
    const char* subject;
    const char* data;
    int size;
    quint64 sequence; // in the stream; 0: not from one
    bool no_responders;
};

// A thread that reads one subscription, and subscribes anew whenever the connection has come back
// or the subscription has failed.
class Reader
{
public:
    using Subscribe = std::function<natsStatus(natsConnection*, natsSubscription**)>;
    using Handle = std::function<void(const Incoming&)>;

    // `idle` is called when nothing has come for `pause`. Both run on the reader's thread, with no
    // lock held.
    Reader(Connection& connection, Subscribe subscribe, Handle handle,
           std::chrono::milliseconds pause = std::chrono::milliseconds(100),
           std::function<void()> idle = {});
    ~Reader();
    Q_DISABLE_COPY(Reader)

    // A subscription to a subject.
    static Subscribe plain(const QByteArray& subject);
    // All of a stream from behind this place on, or only the last of each subject.
    static Subscribe stream(const QByteArray& subject, const QByteArray& stream,
                            std::function<quint64(Connection&)> cursor, Connection& connection);
    static Subscribe lastOfEach(const QByteArray& subject, const QByteArray& stream);

private:
    void run();

    Connection& m_connection;
    const Subscribe m_subscribe;
    const Handle m_handle;
    const std::chrono::milliseconds m_pause;
    const std::function<void()> m_idle;
    std::mutex m_mutex;
    std::condition_variable m_stopped;
    bool m_stop = false; // guarded by m_mutex
    std::thread m_thread;
};

} // namespace lxlink

#endif
