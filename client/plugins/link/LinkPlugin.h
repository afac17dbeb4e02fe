// LinkPlugin: the net plugin of a client that is one of several, over a NATS server.
#ifndef LXCLIENT_LINK_LINKPLUGIN_H
#define LXCLIENT_LINK_LINKPLUGIN_H

#include "Connection.h"
#include "Role.h"

#include <lxclient/PluginBase.h>

#include <QElapsedTimer>
#include <QHash>
#include <QMutex>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

// Quotes have a connection of their own, so that orders never wait behind them. The link's thread
// owns the role and its store; whatever comes, from the bus or the server, waits for it in m_work.
class LinkPlugin : public lxclient::PluginBase,
                   public lxclient::Input,
                   public lxclient::Guide,
                   public lxlink::Post
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "link.json")
    Q_INTERFACES(lxclient::Plugin lxclient::Input lxclient::Guide)
public:
    LinkPlugin();
    ~LinkPlugin() override;

    lxclient::Error prepare(QVariantMap& settings, bool& complete, QString& waitingFor) override;
    lxclient::Report report() const override;

    void start() override;
    void stop() override;
    bool ended() const override;

private:
    struct Neighbour
    {
        lxclient::Presence presence;
        quint64 instance = 0;
        bool left = false;
        QElapsedTimer heard;
    };

    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onShutDown() override;
    void onMessage(const QString& sender, int type, const QVariant& payload) override;

    void letter(lxlink::Letter letter) override;
    void putQuote(const lxclient::Quote& quote) override;
    void putNet(const QString& destination, int type, const QVariant& payload,
                const QString& traceId) override;
    void fault(const QString& what) override;
    void warn(const QString& what) override;

    lxclient::Error begin(const QVariantMap& settings);
    lxclient::Error claim(bool& claimed);
    void run();
    void wake();
    void meet(const lxlink::Incoming& incoming);
    void sweep();
    void publishPresence(bool gone);
    void tellState();
    void end();
    QVector<lxlink::OtherClient> others() const;

    // constant once it is prepared
    lxlink::Access m_access;
    QString m_role_name;
    QString m_desk;
    QByteArray m_key; // of its own presence
    quint64 m_instance = 0;
    qint64 m_since_ms = 0;
    QHash<QString, int> m_type_of_symbol;

    std::unique_ptr<lxlink::Connection> m_orders;
    std::unique_ptr<lxlink::Connection> m_quotes;
    // opened on the main thread before the link's begins, and finished there after its end
    std::unique_ptr<lxlink::Role> m_role;
    std::unique_ptr<lxlink::Reader> m_presence_reader;
    std::thread m_thread;
    QElapsedTimer m_claiming; // main thread

    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    // guarded by m_mutex
    lxlink::Work m_work;
    bool m_stop = false;
    bool m_woken = false;
    QHash<QByteArray, Neighbour> m_neighbours; // by key, without itself
    QVector<lxclient::Presence> m_to_tell;
    QString m_rival; // who else has our key; empty: nobody
    QString m_last_warning;
    QStringList m_faults;
    QMap<QString, quint64> m_put; // quotes, by symbol
    lxclient::LinkState m_state;

    // atomic: set by the main thread, read by the link's
    std::atomic<bool> m_started{false};
};

#endif
