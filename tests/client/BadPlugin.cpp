// A plugin that fails as the environment variable LX_BAD says: "throw initialise", "hang shutDown",
// "crash onQuote", "overflow onQuote", "slow onQuote".
#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QMutex>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <thread>

namespace {

[[noreturn]] void hang()
{
    std::fputs("hangs\n", stderr);
    for (;;)
        std::this_thread::sleep_for(std::chrono::hours(1));
}

// Deeper than any stack.
int descend(const volatile char* above, int levels)
{
    volatile char here[4096];
    here[0] = above[0];
    return levels > 0 ? descend(here, levels - 1) + here[0] : 0;
}

void fail(const char* where)
{
    static const QByteArray what = qgetenv("LX_BAD");
    static const QByteArray how = what.split(' ').first();
    if (what != how + ' ' + where)
        return;
    if (how == "throw")
        throw std::runtime_error("told to");
    if (how == "hang")
        hang();
    if (how == "crash")
        std::raise(SIGSEGV);
    if (how == "overflow")
        descend(what.constData(), 1 << 24);
    if (how == "slow") // much slower than any session
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
}

} // namespace

class BadPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "bad.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    BadPlugin()
        : PluginBase(MessageThread | QuotationThread)
    {
        fail("constructor");
    }

    lxclient::Report report() const override
    {
        fail("report");
        lxclient::Report report;
        const QMutexLocker locker(&m_mutex);
        m_audit.post(report);
        return report;
    }

private:
    lxclient::Error onInitialise(const QVariantMap& settings) override
    {
        fail("initialise");
        if (qgetenv("LX_BAD") == "wordless")
            return lxclient::Error(" ");
        m_audit.expect(settings.value(lxclient::setting::Symbols).toStringList());
        subscribeQuotes(settings);
        return {};
    }

    void registerPayloads() override { fail("registerPayloads"); }

    void onStarted() override
    {
        fail("started");
        request(id(), 1, {}, [](const lxclient::Error&, const QVariant&) { fail("answered"); });
    }

    void onRequest(const lxclient::Request& request) override
    {
        fail("onRequest");
        reply(request, {});
    }

    void onShutDown() override { fail("shutDown"); }

    void onQuote(const lxclient::Quote& quote) override
    {
        fail("onQuote");
        const QMutexLocker locker(&m_mutex);
        m_audit.count(quote);
    }

    mutable QMutex m_mutex;
    lxclient::QuoteAudit m_audit; // guarded by m_mutex
};

#include "BadPlugin.moc"
