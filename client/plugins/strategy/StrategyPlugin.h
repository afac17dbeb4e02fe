// StrategyPlugin: follows trends. Two moving averages of each symbol's mid price; when the fast one
// has crossed the slow one by more than the spread, it signals the turn to the first board and asks
// the orders plugin to turn the position.
#ifndef LXCLIENT_STRATEGYPLUGIN_H
#define LXCLIENT_STRATEGYPLUGIN_H

#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QHash>
#include <QMutex>

#include <deque>

// What it does follows from the sequence of quotes alone, so a session that is played again trades
// alike.
class StrategyPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "strategy.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    StrategyPlugin();

    lxclient::Report report() const override;

private:
    // The averages of one symbol.
    struct Trend
    {
        std::deque<double> mids; // the newest last, at most `slow` of them
        double fast_sum = 0;
        double slow_sum = 0;
        int direction = 0; // 1 rising, -1 falling, 0 not known yet
    };

    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onMessage(const QString& sender, int type, const QVariant& payload) override;
    void onQuote(const lxclient::Quote& quote) override;

    int turn(Trend& trend, const lxclient::Quote& quote) const;
    void signalTurn(const QString& symbol, bool rising);
    void request(const QString& symbol, qint64 quantity);

    // constant after initialise
    qint64 m_fast = 0; // quotes in the averages
    qint64 m_slow = 0;
    qint64 m_lot = 0;

    // the quotation worker's alone
    QHash<QString, Trend> m_trends; // by symbol

    mutable QMutex m_mutex;
    // guarded by m_mutex
    lxclient::QuoteAudit m_audit;
    QHash<QString, qint64> m_targets; // by symbol: what is held once all requests are filled
    quint64 m_signals = 0;
    quint64 m_requests = 0;
    quint64 m_refusals = 0;
};

#endif
