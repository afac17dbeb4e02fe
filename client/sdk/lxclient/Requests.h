/// \file
/// Request and Reply: a question from one plugin to another, and what comes back. PluginBase puts
/// and takes them.
#ifndef LXCLIENT_REQUESTS_H
#define LXCLIENT_REQUESTS_H

#include <lxclient/Error.h>

#include <QHash>
#include <QMetaType>
#include <QMutex>
#include <QString>
#include <QVariant>

#include <chrono>
#include <functional>
#include <utility>

namespace lxclient {

/// What travels as a message of the type RequestType to the plugin that is asked.
struct Request
{
    QString trace_id; ///< by which the reply finds back; names the transaction in both records
    QString sender;   ///< who asks
    int type = 0;     ///< what is asked for, a number as for messages
    QVariant payload; ///< the question
};

/// What travels back as a message of the type ReplyType.
struct Reply
{
    QString trace_id; ///< of the request
    QString refusal;  ///< why there is no answer; empty: here it is
    QVariant payload; ///< the answer
};

/// What is called with the answer, or with the reason why there is none: the other plugin's
/// refusal, or that it has not answered in time.
using Answered = std::function<void(const Error& error, const QVariant& payload)>;

/// How long an answer may take unless something else is asked for.
constexpr std::chrono::milliseconds DefaultTimeout{5000};

/// The requests of one plugin that have not been answered yet. From any thread.
class PendingRequests
{
public:
    /// Remembers whom to call. False: a request with this trace ID is pending already.
    bool add(const QString& traceId, Answered answered)
    {
        const QMutexLocker locker(&m_mutex);
        if (m_pending.contains(traceId))
            return false;
        m_pending.insert(traceId, std::move(answered));
        return true;
    }

    /// Calls whoever waits for this reply, on the calling thread, and forgets him. A reply that
    /// nobody waits for, any more or at all, does nothing.
    void take(const Reply& reply)
    {
        Answered answered;
        {
            const QMutexLocker locker(&m_mutex);
            answered = m_pending.take(reply.trace_id);
        }
        if (answered)
            answered(reply.refusal.isEmpty() ? Error() : Error(reply.refusal), reply.payload);
    }

    /// Whether a request with this trace ID waits for its reply.
    bool contains(const QString& traceId) const
    {
        const QMutexLocker locker(&m_mutex);
        return m_pending.contains(traceId);
    }

    /// Forgets all, without calling anybody.
    void clear()
    {
        QHash<QString, Answered> dropped; // made first, so that it goes after the lock
        const QMutexLocker locker(&m_mutex);
        dropped.swap(m_pending);
    }

private:
    mutable QMutex m_mutex;
    QHash<QString, Answered> m_pending; // by trace ID; guarded by m_mutex
};

} // namespace lxclient

Q_DECLARE_METATYPE(lxclient::Request)
Q_DECLARE_METATYPE(lxclient::Reply)

#endif
