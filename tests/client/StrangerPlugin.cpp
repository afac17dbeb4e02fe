// A plugin that the host knows nothing of: counts quotes, and says on stderr how it is led through
// its life.
#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QMutex>

#include <cstdio>

class StrangerPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "stranger.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    Q_INVOKABLE StrangerPlugin()
        : PluginBase(QuotationThread)
    { }
    ~StrangerPlugin() override
    {
        if (!id().isEmpty())
            say("destroyed");
    }

    lxclient::Report report() const override
    {
        lxclient::Report report;
        const QMutexLocker locker(&m_mutex);
        m_audit.post(report);
        report.remarks.append("a stranger's remark");
        if (m_faulty)
            report.faults.append("told to be faulty");
        return report;
    }

private:
    lxclient::Error onInitialise(const QVariantMap& settings) override
    {
        m_faulty = settings.value("fault") == id();
        m_forgetful = settings.value("forget") == id();
        if (m_forgetful)
            Reg("window of " + id(), this, EventThread);
        m_hangs = settings.value("hang") == id();
        m_late = settings.value("late") == id();
        if (settings.value("refuse") == id())
            return lxclient::Error("told to refuse");
        m_audit.expect(settings.value(lxclient::setting::Symbols).toStringList());
        subscribeQuotes(settings);
        say("initialised");
        return {};
    }

    void onStarted() override { say("started"); }
    void registerPayloads() override { say("asked for its payload types"); }

    void onShutDown() override
    {
        if (m_late)
            waitForTheEndOfInput();
        if (m_forgetful)
            Reg(id(), this, MessageThread); // as if it had not been unregistered
        say("shut down");
    }

    void onQuote(const lxclient::Quote& quote) override
    {
        if (m_hangs)
            waitForTheEndOfInput();
        const QMutexLocker locker(&m_mutex);
        m_audit.count(quote);
    }

    void say(const char* what) const { std::fprintf(stderr, "%s %s\n", qPrintable(id()), what); }

    static void waitForTheEndOfInput()
    {
        while (std::getchar() != EOF) { }
    }

    bool m_faulty = false;
    bool m_forgetful = false;
    bool m_hangs = false;
    bool m_late = false;
    mutable QMutex m_mutex;
    lxclient::QuoteAudit m_audit; // guarded by m_mutex
};

#include "StrangerPlugin.moc"
