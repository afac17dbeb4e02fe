/// \file
/// PluginBase: what is alike in all plugins of lxclient.
#ifndef LXCLIENT_PLUGINBASE_H
#define LXCLIENT_PLUGINBASE_H

#include <lxclient/Plugin.h>
#include <lxclient/Protocol.h>
#include <lxclient/Requests.h>
#include <lxclient/Supervisor.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/MessageInterface.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QTimer>

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>

namespace lxclient {

/// Holds the plugin's ID, registers and unregisters, and hands what the bus delivers to the hooks
/// below. A plugin says in its constructor what it wants to receive, overrides the hooks that it
/// needs, and report():
///
///     class Board : public lxclient::PluginBase
///     {
///     public:
///         Board() : PluginBase(QuotationThread) { }
///         lxclient::Report report() const override;
///
///     private:
///         lxclient::Error onInitialise(const QVariantMap& settings) override;
///         void onQuote(const lxclient::Quote& quote) override;
///
/// onInitialise, onStarted and onShutDown run on the main thread. onQuote and onEvent each run on a
/// worker thread of the bus, onMessage, onRequest and the answers to requests on a third: calls on
/// one thread never overlap, calls on different ones may. None runs before onInitialise has
/// returned or after onShutDown has begun.
///
/// An exception that leaves onMessage, onRequest, the answer to a request, onEvent or onQuote ends
/// here: none of them is called again, and the host is told, which names plugin and reason, shuts
/// the plugin down and counts it as a fault. Without a host it is said in the log.
///
/// A plugin that is destroyed without shutDown, a mistake of whoever owns it, has handlers that run
/// in an object half gone. It says so in the log and unregisters.
class PluginBase : public IMessageInterface, public Plugin
{
public:
    /// `kinds` is what the plugin receives, combined with |.
    explicit PluginBase(ThreadType kinds)
        : m_kinds(kinds)
    { }

    /// On the main thread, after shutDown.
    ~PluginBase() override
    {
        if (m_registered) {
            qCritical("lxclient: plugin %s is destroyed without having been shut down",
                      qPrintable(m_id));
            UnReg(m_id);
        }
    }

    Q_DISABLE_COPY(PluginBase)

    /// Calls onInitialise, then registers. An ID that the bus has already is refused before that,
    /// and whoever has it keeps it; a registration that the bus refuses is an error like any other.
    Error initialise(const QString& id, const QVariantMap& settings) final
    {
        if (inboxesOf(id) > 0)
            return Error(QStringLiteral("the ID %1 is on the bus already").arg(id));
        m_id = id;
        m_supervisor = settings.value(setting::Supervisor).value<Supervisor*>();
        try {
            if (const Error error = onInitialise(settings)) {
                UnReg(m_id); // its subscriptions
                return error;
            }
        } catch (...) {
            UnReg(m_id);
            throw;
        }
        Reg(m_id, this, m_kinds);
        if (inboxesOf(m_id) != numberOf(m_kinds)) {
            shutDown();
            return Error(QStringLiteral("the bus has refused to register %1; its log says why")
                             .arg(m_id.isEmpty() ? QStringLiteral("an empty ID") : m_id));
        }
        m_registered = true;
        return {};
    }

    /// Calls onStarted.
    void started() final { onStarted(); }

    /// Unregisters, then calls onShutDown. Requests that have no answer get none.
    void shutDown() final
    {
        UnReg(m_id);
        m_registered = false;
        m_requests.clear();
        onShutDown();
    }

protected:
    /// Makes ready and subscribes. If it fails, it leaves nothing behind but subscriptions, which
    /// are ended for it; onShutDown is then not called.
    virtual Error onInitialise(const QVariantMap& settings) = 0;

    /// All plugins are there: what another one has to be asked at the beginning is asked here.
    virtual void onStarted() { }

    /// Releases what onInitialise took. Comes also after a registration that was refused.
    virtual void onShutDown() { }

    /// A message of `type` from the plugin `sender`. Needs MessageThread.
    virtual void onMessage(const QString& /*sender*/, int /*type*/, const QVariant& /*payload*/) { }

    /// An event of `type` from the plugin `sender`. Needs EventThread.
    virtual void onEvent(const QString& /*sender*/, int /*type*/, const QVariant& /*payload*/) { }

    /// A quote. Needs QuotationThread. A quotation with another payload does not come here.
    virtual void onQuote(const Quote& /*quote*/) { }

    /// Another plugin asks for something. Needs MessageThread. It is answered with reply or refuse,
    /// once, now or later, on any thread. Refused unless this is overridden.
    virtual void onRequest(const Request& request)
    {
        refuse(request,
               QStringLiteral("%1 does not answer requests of the type 0x%2")
                   .arg(m_id)
                   .arg(request.type, 0, 16));
    }

    /// The ID on the bus, from onInitialise on.
    const QString& id() const { return m_id; }

    /// A setting that the plugin's metadata declares under the name "ID.name".
    QVariant ownSetting(const QVariantMap& settings, const QString& name) const
    {
        return settings.value(m_id.section(QLatin1Char('#'), 0, 0) + QLatin1Char('.') + name);
    }

    /// \{
    /// Puts a message to one plugin or to all that subscribed to its type, or an event to all that
    /// did and to the linked windows. From any thread.
    void send(const QString& destination, int type, const QVariant& payload)
    {
        Put(m_id, new CMessageCommon(m_id, destination, type, payload));
    }
    void broadcast(int type, const QVariant& payload) { send(QString(), type, payload); }
    void publish(int type, const QVariant& payload)
    {
        PutEvent(m_id, new CEventMessageCommon(m_id, QString(), type, payload));
    }
    /// \}

    /// Asks another plugin, from any thread, from onStarted on. Needs MessageThread: `answered` is
    /// called on the thread of onMessage, once, with the answer, or with the error that it was
    /// refused or did not come within `timeout`; the object's thread, which has an event loop,
    /// keeps the time. It is not called when the plugin is shut down before. Requests are not in
    /// the ledger. `traceId` names the transaction, made up if it is empty; no other request of
    /// this plugin that waits for its answer may have it (then nothing is put, and `answered` not
    /// called). Returns the trace ID, empty in that case.
    QString request(const QString& destination, int type, const QVariant& payload,
                    Answered answered, std::chrono::milliseconds timeout = DefaultTimeout,
                    QString traceId = QString())
    {
        if (traceId.isEmpty())
            traceId = QStringLiteral("%1-request-%2").arg(m_id).arg(++m_request_count);
        if (!m_requests.add(traceId, std::move(answered))) {
            qWarning("lxclient: plugin %s: a request %s has no answer yet, not put again",
                     qPrintable(m_id), qPrintable(traceId));
            return QString();
        }
        QMetaObject::invokeMethod(
            this,
            [this, destination, traceId, timeout] {
                // a child, which goes with the plugin: what QTimer::singleShot makes would keep its
                // function until the time is over, when the library may have gone
                auto* const timer = new QTimer(this);
                timer->setSingleShot(true);
                connect(timer, &QTimer::timeout, this, [=] {
                    timer->deleteLater();
                    giveUp(destination, traceId, timeout);
                });
                timer->start(timeout);
            },
            Qt::QueuedConnection);
        putTraced(destination, RequestType, traceId,
                  QVariant::fromValue(Request{traceId, m_id, type, payload}));
        return traceId;
    }

    /// \{
    /// Answers a request, or says in words for the user why not. From any thread.
    void reply(const Request& request, const QVariant& payload)
    {
        putTraced(request.sender, ReplyType, request.trace_id,
                  QVariant::fromValue(Reply{request.trace_id, QString(), payload}));
    }
    void refuse(const Request& request, const QString& reason)
    {
        putTraced(request.sender, ReplyType, request.trace_id,
                  QVariant::fromValue(Reply{request.trace_id, Error(reason).words(), QVariant()}));
    }
    /// \}

    /// \{
    /// Subscribes to a type of message or quotation, or of event, until shutDown.
    void subscribe(int type) { Sub(m_id, type, OperAdd); }
    void subscribeEvent(int type) { SubEvent(m_id, type, OperAdd); }
    /// \}

    /// \{
    /// Subscribes to the quotes of these symbols, or of all, until shutDown. What is not in the
    /// setting "symbols" is passed over.
    void subscribeQuotes(const QVariantMap& settings, const QStringList& symbols)
    {
        for (const QString& symbol : symbols) {
            const int type = quoteType(settings, symbol);
            if (type >= 0)
                subscribe(type);
        }
    }
    void subscribeQuotes(const QVariantMap& settings)
    {
        subscribeQuotes(settings, settings.value(setting::Symbols).toStringList());
    }
    /// \}

    /// Calls `function` as the hooks are called: the edge of the plugin, beyond which, in a worker
    /// of the bus or an event loop, an exception ends the process. Here it is caught and told, and
    /// nothing is called after it. For what a plugin runs on a timer, say. `name` is told as what
    /// has thrown; it outlives the call. From any thread.
    template<class Function>
    void guarded(const char* name, const Function& function)
    {
        if (m_failed.load(std::memory_order_relaxed))
            return;
        try {
            const Watched watched(m_supervisor, name);
            function();
        } catch (...) {
            m_failed.store(true, std::memory_order_relaxed);
            const QString reason = exceptionWords();
            if (m_supervisor)
                m_supervisor->threw(name, reason);
            else
                qCritical("lxclient: plugin %s: %s has thrown: %s", qPrintable(m_id), name,
                          qPrintable(reason));
        }
    }

private:
    void RecvMsg(QString srcId, QVariant type, QVariant data) final
    {
        const int number = type.toInt();
        if (number == RequestType)
            guarded("onRequest", [&] { onRequest(data.value<Request>()); });
        else if (number == ReplyType)
            guarded("the callback of a request", [&] { m_requests.take(data.value<Reply>()); });
        else
            guarded("onMessage", [&] { onMessage(srcId, number, data); });
    }

    void RecvEvent(QString srcId, QVariant type, QVariant data) final
    {
        guarded("onEvent", [&] { onEvent(srcId, type.toInt(), data); });
    }

    void RecvQuotationMsg(QString, QVariant, QVariant data) final
    {
        if (data.userType() == qMetaTypeId<Quote>())
            guarded("onQuote", [&] { onQuote(data.value<Quote>()); });
    }

    // How many inboxes the bus has for the ID. While nobody else registers it, which is so on the
    // main thread, this tells whether a registration was taken.
    static int inboxesOf(const QString& id)
    {
        const QVector<InboxStatistics> inboxes = CBusMonitor::statistics().inboxes;
        return static_cast<int>(
            std::count_if(inboxes.begin(), inboxes.end(), [&](const InboxStatistics& inbox) {
                return !id.isEmpty() && inbox.plugin == id;
            }));
    }

    static int numberOf(ThreadType kinds)
    {
        int number = 0;
        for (const ThreadType kind : {MessageThread, QuotationThread, EventThread})
            number += (kinds & kind) ? 1 : 0;
        return number;
    }

    void putTraced(const QString& destination, int type, const QString& traceId,
                   const QVariant& payload)
    {
        auto msg = std::make_unique<CMessageCommon>(m_id, destination, type, payload);
        msg->setTraceId(traceId);
        Put(m_id, msg.release());
    }

    // On the object's thread. The refusal comes like a reply, through the inbox: so the answer is
    // always called on the thread of onMessage, and whichever of the two is there first is it.
    void giveUp(const QString& destination, const QString& traceId,
                std::chrono::milliseconds timeout)
    {
        if (!m_requests.contains(traceId))
            return;
        const QString reason = QStringLiteral("%1 has not answered within %2 ms")
                                   .arg(destination)
                                   .arg(timeout.count());
        putTraced(m_id, ReplyType, traceId,
                  QVariant::fromValue(Reply{traceId, reason, QVariant()}));
    }

    class Watched
    {
    public:
        Watched(Supervisor* supervisor, const char* handler)
            : m_supervisor(supervisor)
        {
            if (m_supervisor)
                m_supervisor->entered(handler);
        }
        ~Watched()
        {
            if (m_supervisor)
                m_supervisor->left();
        }
        Q_DISABLE_COPY(Watched)

    private:
        Supervisor* const m_supervisor;
    };

    const ThreadType m_kinds;
    // constant after initialise
    QString m_id;
    Supervisor* m_supervisor = nullptr; // the host's; null: nobody wants to know

    // atomic: set by the thread on which a hook has thrown, read by all
    std::atomic<bool> m_failed{false};

    bool m_registered = false;
    PendingRequests m_requests;
    std::atomic<int> m_request_count{0}; // counted up by any thread
};

} // namespace lxclient

#endif
