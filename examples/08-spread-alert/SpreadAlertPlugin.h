// SpreadAlertPlugin: watches the spread between two symbols, says so when it widens beyond a
// threshold, and tells it to whoever asks.
#ifndef SPREADALERTPLUGIN_H
#define SPREADALERTPLUGIN_H

#include <lxclient/PluginBase.h>

#include <QTimer>

#include <atomic>

constexpr int SpreadWidened = lxclient::FirstFreeType + 0x100; // event: double, the spread
constexpr int SpreadWanted = lxclient::FirstFreeType + 0x101;  // request; answered with a double

class SpreadAlertPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "spread-alert.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    SpreadAlertPlugin();
    lxclient::Report report() const override;

private:
    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onShutDown() override { m_timer.stop(); }
    void onQuote(const lxclient::Quote& quote) override;
    void onRequest(const lxclient::Request& request) override;

    QString m_first, m_second; // constant after initialise, like m_threshold
    double m_threshold = 0;
    QTimer m_timer;                  // on the main thread
    int m_seconds = 0;               // so long was it wide; the main thread's alone
    double m_bid = 0, m_ask = 0;     // of the two symbols; the quotation worker's alone
    std::atomic<double> m_spread{0}; // these are written there and read by the other threads
    std::atomic<quint64> m_quotes{0}, m_alerts{0};
};

#endif
