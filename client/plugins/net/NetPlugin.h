// NetPlugin: the client's connection to the market. Here it is a player of quotes and a simulated
// exchange that fills every order at the last quote.
#ifndef LXCLIENT_NETPLUGIN_H
#define LXCLIENT_NETPLUGIN_H

#include <QuoteSource.h>

#include <lxbase/MessageInterface.h>
#include <lxclient/Plugin.h>
#include <lxclient/Protocol.h>

#include <QHash>
#include <QMutex>
#include <QVector>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

class CMessageCommon;

// Settings of its own:
//     "quotes"           QStringList, recordings to play; empty: a synthetic session of
//     "synthetic.quotes" int, so many quotes, made from
//     "synthetic.seed"   qulonglong
//     "speed"            double, times real time; 0: as fast as possible
//
// Threads: the player thread puts the quotes; RecvMsg fills orders on the plugin's message worker.
// They meet at the last quotes.
class NetPlugin : public IMessageInterface, public lxclient::Plugin, public lxclient::Input
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "net.json")
    Q_INTERFACES(lxclient::Plugin lxclient::Input)
public:
    ~NetPlugin() override;

    bool initialise(const QString& id, const QVariantMap& settings, QString& reason) override;
    void shutDown() override;
    lxclient::Report report() const override;

    void start() override;
    void stop() override;
    bool ended() const override { return m_ended; }

    void RecvMsg(QString srcId, QVariant type, QVariant data) override;
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    // What is played of one symbol.
    struct Line
    {
        QString symbol;
        int type;
        quint64 put = 0;                // guarded by m_mutex
        CMessageCommon* last = nullptr; // borrowed from the pool; its payload is guarded by m_mutex
    };

    void play();
    bool waitUntilDue(qint64 dueMs);
    void putQuote(lxclient::Quote quote);
    void fill(const QString& customer, const lxclient::Order& order);
    void reportBadRow(const QString& where, const QString& reason);
    void fault(const QString& what);

    void borrowRecords();
    void returnRecords();

    // constant after initialise
    QString m_id;
    double m_speed = 0;
    QHash<QString, int> m_line_of_symbol; // index into m_lines

    // the player thread's, after start
    using Clock = std::chrono::steady_clock;
    std::unique_ptr<QuoteSource> m_source;
    std::optional<qint64> m_first_due_ms;
    Clock::time_point m_begin; // when the first quote was due
    std::thread m_player;

    // ends the player's wait for the next quote
    std::mutex m_stop_mutex;
    std::condition_variable m_stop_condition;
    bool m_stop = false; // guarded by m_stop_mutex

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
