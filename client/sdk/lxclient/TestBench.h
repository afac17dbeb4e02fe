/// \file
/// TestBench: what the test of a plugin needs: a bus, quotes, other plugins to talk to, and waiting
/// with a deadline. Independent of the test framework.
#ifndef LXCLIENT_TESTBENCH_H
#define LXCLIENT_TESTBENCH_H

#include <lxclient/PluginBase.h>

#include <lxbase/MessageCenter.h>
#include <lxdefine/PluginID.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QMutex>
#include <QTimer>

#include <functional>
#include <utility>
#include <vector>

namespace lxclient {

/// A plugin that plays the others: it keeps what it receives, and puts and asks what the test says.
/// All operations on any thread, except that the answer to requests is set before it is started.
class StubPlugin final : public PluginBase
{
public:
    /// What came, as the handler was given it.
    struct Received
    {
        QString sender;   ///< who put it
        int type = 0;     ///< what it is
        QVariant payload; ///< as it was put
    };

    /// Subscribed to these types of message and of event; what is sent to its ID comes as well.
    explicit StubPlugin(QVector<int> messageTypes = {}, QVector<int> eventTypes = {})
        : PluginBase(MessageThread | QuotationThread | EventThread)
        , m_message_types(std::move(messageTypes))
        , m_event_types(std::move(eventTypes))
    { }

    /// How it answers requests, on its message thread: an error refuses. Without this all are
    /// refused.
    std::function<Error(const Request& request, QVariant& answer)> answer;

    /// \{
    /// What has come so far.
    QVector<Received> messages() const { return copyOf(m_messages); }
    QVector<Received> events() const { return copyOf(m_events); }
    /// \}

    /// \{
    /// As in PluginBase.
    using PluginBase::broadcast;
    using PluginBase::id;
    using PluginBase::publish;
    using PluginBase::request;
    using PluginBase::send;
    /// \}

    /// Nothing of interest.
    Report report() const override { return {}; }

private:
    Error onInitialise(const QVariantMap&) override
    {
        for (const int type : m_message_types)
            subscribe(type);
        for (const int type : m_event_types)
            subscribeEvent(type);
        return {};
    }
    void onMessage(const QString& sender, int type, const QVariant& payload) override
    {
        const QMutexLocker locker(&m_mutex);
        m_messages.append({sender, type, payload});
    }
    void onEvent(const QString& sender, int type, const QVariant& payload) override
    {
        const QMutexLocker locker(&m_mutex);
        m_events.append({sender, type, payload});
    }
    void onRequest(const Request& request) override
    {
        QVariant payload;
        if (!answer)
            PluginBase::onRequest(request);
        else if (const Error error = answer(request, payload))
            refuse(request, error.words());
        else
            reply(request, payload);
    }

    QVector<Received> copyOf(const QVector<Received>& received) const
    {
        const QMutexLocker locker(&m_mutex);
        return received;
    }

    const QVector<int> m_message_types;
    const QVector<int> m_event_types;

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QVector<Received> m_messages;
    QVector<Received> m_events;
};

/// Plays the host and the net plugin for the plugins under test:
///
///     MyPlugin plugin;
///     lxclient::TestBench bench({"EUR/USD"});
///     const lxclient::Error error = bench.start(plugin, "mine", {{"mine.limit", 2}});
///     QVERIFY2(!error, qPrintable(error.words()));
///     bench.started();
///     bench.quote("EUR/USD", {11000, 4}, {11002, 4});
///     QVERIFY(bench.waitUntil([&] { return plugin.report().quotations == 1; }));
///
/// One at a time, on the main thread of a program that has a QCoreApplication. Make the plugins
/// before the bench: it shuts them down when it goes, and they must not go before that.
class TestBench
{
public:
    /// How long waitUntil waits: generous, so that it is reached only when something is wrong.
    static constexpr int DeadlineMs = 30000;

    /// Starts the bus, without the debug level of its log. These symbols can be quoted.
    explicit TestBench(QStringList symbols = {QStringLiteral("EUR/USD"), QStringLiteral("USD/JPY")})
        : m_settings{{setting::Symbols, symbols}, {setting::Linked, QStringList()}}
    {
        QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));
        registerPayloads();
        CMessageCenter::GetInstance()->Start();
    }

    /// Shuts down what was started, in reverse order.
    ~TestBench()
    {
        while (!m_plugins.empty())
            stop(*m_plugins.back());
    }

    Q_DISABLE_COPY(TestBench)

    /// Initialises a plugin with the settings of the host and `own`, which has to name every
    /// setting that the plugin's metadata declares: the defaults are in the metadata, which only
    /// the host reads. `own` may replace settings of the host too. Not owned.
    Error start(Plugin& plugin, const QString& id, const QVariantMap& own = {})
    {
        QVariantMap settings = m_settings;
        for (auto it = own.begin(); it != own.end(); ++it)
            settings.insert(it.key(), it.value());
        plugin.registerPayloads();
        const Error error = plugin.initialise(id, settings);
        if (!error)
            m_plugins.push_back(&plugin);
        return error;
    }

    /// All plugins are there: tells each of them, in the order of their start.
    void started()
    {
        for (Plugin* const plugin : m_plugins)
            plugin->started();
    }

    /// Shuts one down.
    void stop(Plugin& plugin)
    {
        for (auto it = m_plugins.begin(); it != m_plugins.end(); ++it) {
            if (*it == &plugin) {
                m_plugins.erase(it);
                plugin.shutDown();
                return;
            }
        }
    }

    /// Puts the next quote of a symbol, as the net plugin does: in order, and numbered from 1 on.
    void quote(const QString& symbol, const Decimal& bid, const Decimal& ask)
    {
        Quote quote;
        quote.symbol = symbol;
        quote.sequence = ++m_sequences[symbol];
        quote.time_ms = ++m_time_ms;
        quote.bid = bid;
        quote.ask = ask;
        const QString& net = PluginID::PLUGINNET_GLOBALID;
        CRegManager::PutQuotationMsg(net,
                                     new CMessageCommon(net, QString(),
                                                        quoteType(m_settings, symbol),
                                                        QVariant::fromValue(quote)));
    }

    /// Runs the event loop until the condition is true, which it looks at again after every event
    /// and each millisecond. False, and a line on stderr, if it is not within the deadline.
    template<class Condition>
    bool waitUntil(Condition condition, int deadlineMs = DeadlineMs)
    {
        QTimer look; // wakes the event loop where no event would
        look.start(1);
        QTimer deadline;
        deadline.setSingleShot(true);
        deadline.start(deadlineMs);
        while (!condition()) {
            if (!deadline.isActive()) {
                qCritical("lxclient: what the test waits for has not happened within %d ms",
                          deadlineMs);
                return false;
            }
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        }
        return true;
    }

private:
    const QVariantMap m_settings;
    std::vector<Plugin*> m_plugins;      // those that are initialised; not owned
    QHash<QString, quint64> m_sequences; // by symbol
    qint64 m_time_ms = 0;
};

} // namespace lxclient

#endif
