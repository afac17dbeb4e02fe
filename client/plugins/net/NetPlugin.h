// NetPlugin: the client's connection to the market. Here it is a player of quotes and a simulated
// exchange that fills every order at the last quote.
#ifndef LXCLIENT_NETPLUGIN_H
#define LXCLIENT_NETPLUGIN_H

#include <QuotePacer.h>
#include <QuoteSource.h>

#include <lxclient/PluginBase.h>

#include <QHash>
#include <QMutex>
#include <QVector>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

class CMessageCommon;

// Plays the recordings of the setting "quotes" or, if there are none, a synthetic session; see
// Protocol.h for these settings.
//
// Threads: the player thread puts the quotes; onMessage fills orders on the plugin's message
// worker, each at the last quote of its symbol, which the player has left there under m_mutex.
class NetPlugin : public lxclient::PluginBase, public lxclient::Input
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "net.json")
    Q_INTERFACES(lxclient::Plugin lxclient::Input)
public:
    NetPlugin();
    ~NetPlugin() override;

    lxclient::Report report() const override;

    void start() override;
    void stop() override;
    bool ended() const override { return m_ended; }

private:
    // What is played of one symbol.
    struct Line
    {
        QString symbol;
        int type;
        quint64 put = 0;                // guarded by m_mutex
        CMessageCommon* last = nullptr; // borrowed from the pool; its payload is guarded by m_mutex
    };

    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onShutDown() override;
    void onMessage(const QString& sender, int type, const QVariant& payload) override;

    void play();
    bool waitForRoom();
    quint64 itemsUnderWay() const;
    static void sayLongGap(qint64 fromMs, qint64 toMs, double waitS, bool skipped);
    void putQuote(lxclient::Quote quote);
    void fill(const QString& customer, const lxclient::Order& order);
    void reportBadRow(const QString& where, const QString& reason);
    void fault(const QString& what);

    void borrowRecords();
    void returnRecords();

    // constant after initialise
    std::unique_ptr<QuotePacer> m_pacer;  // the player waits on it
    lxclient::HeardQuotes m_heard;        // null: nobody listens beside the bus
    QHash<QString, int> m_line_of_symbol; // index into m_lines

    // the player thread's, after start
    using Clock = std::chrono::steady_clock;
    std::unique_ptr<QuoteSource> m_source;
    quint64 m_played = 0; // quotes put
    std::thread m_player;

    // atomic: set by the player as its last act, asked by the host
    std::atomic<bool> m_ended{false};

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QVector<Line> m_lines;
    quint64 m_bad_rows = 0;
    quint64 m_orders = 0;
    quint64 m_acknowledged = 0;
    quint64 m_executed = 0;
    quint64 m_borrowed = 0;
    quint64 m_returned = 0;
    bool m_shut_down = false;
    QStringList m_faults;
};

#endif
