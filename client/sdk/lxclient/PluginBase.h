/// \file
/// PluginBase: what is alike in all plugins of lxclient.
#ifndef LXCLIENT_PLUGINBASE_H
#define LXCLIENT_PLUGINBASE_H

#include <lxclient/Plugin.h>
#include <lxclient/Protocol.h>
#include <lxclient/Supervisor.h>

#include <lxbase/MessageInterface.h>

#include <atomic>
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
/// onInitialise and onShutDown run on the main thread; the others each on a worker thread of the
/// bus: calls of one never overlap, calls of different ones may. None runs before onInitialise has
/// returned or after onShutDown has begun.
///
/// An exception that leaves onMessage, onEvent or onQuote ends here: none of the three is called
/// again, and the host is told, which names plugin and reason, shuts the plugin down and counts it
/// as a fault. Without a host it is said in the log.
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

    /// Calls onInitialise, then registers.
    Error initialise(const QString& id, const QVariantMap& settings) final
    {
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
        m_registered = true;
        return {};
    }

    /// Unregisters, then calls onShutDown.
    void shutDown() final
    {
        UnReg(m_id);
        m_registered = false;
        onShutDown();
    }

protected:
    /// Makes ready and subscribes. If it fails, it leaves nothing behind but subscriptions, which
    /// are ended for it; onShutDown is then not called.
    virtual Error onInitialise(const QVariantMap& settings) = 0;

    /// Releases what onInitialise took.
    virtual void onShutDown() { }

    /// A message of `type` from the plugin `sender`. Needs MessageThread.
    virtual void onMessage(const QString& /*sender*/, int /*type*/, const QVariant& /*payload*/) { }

    /// An event of `type` from the plugin `sender`. Needs EventThread.
    virtual void onEvent(const QString& /*sender*/, int /*type*/, const QVariant& /*payload*/) { }

    /// A quote. Needs QuotationThread. A quotation with another payload does not come here.
    virtual void onQuote(const Quote& /*quote*/) { }

    /// The ID on the bus, from onInitialise on.
    const QString& id() const { return m_id; }

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

private:
    void RecvMsg(QString srcId, QVariant type, QVariant data) final
    {
        call("onMessage", [&] { onMessage(srcId, type.toInt(), data); });
    }

    void RecvEvent(QString srcId, QVariant type, QVariant data) final
    {
        call("onEvent", [&] { onEvent(srcId, type.toInt(), data); });
    }

    void RecvQuotationMsg(QString, QVariant, QVariant data) final
    {
        if (data.userType() == qMetaTypeId<Quote>())
            call("onQuote", [&] { onQuote(data.value<Quote>()); });
    }

    // The edge of the plugin: beyond it, in the worker of the bus, an exception ends the process.
    template<class Hook>
    void call(const char* name, const Hook& hook)
    {
        if (m_failed.load(std::memory_order_relaxed))
            return;
        try {
            const Watched watched(m_supervisor, name);
            hook();
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

    // atomic: set by the worker whose handler has thrown, read by all three
    std::atomic<bool> m_failed{false};

    bool m_registered = false;
};

} // namespace lxclient

#endif
