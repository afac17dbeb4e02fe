// BoardPlugin: a quote board, a window that shows the last quote and the position of every symbol
// and has one symbol selected. Several may be open; those of one colour follow one another's
// selection. A board that is asked to takes the latest quote of each symbol only: one that is slow
// then leaves quotes out, and shows no old ones.
#ifndef LXCLIENT_BOARDPLUGIN_H
#define LXCLIENT_BOARDPLUGIN_H

#include <lxclient/LinkedSelection.h>
#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QMap>
#include <QMutex>

// A signal of the strategy selects its symbol; the linked boards follow.
class BoardPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "board.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    Q_INVOKABLE BoardPlugin(); // invokable: the host makes one for each window

    lxclient::Report report() const override;

private:
    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onMessage(const QString& sender, int type, const QVariant& payload) override;
    void onEvent(const QString& sender, int type, const QVariant& payload) override;
    void onQuote(const lxclient::Quote& quote) override;

    lxclient::LinkedSelection m_selection;
    bool m_latest = false; // the inbox keeps the latest quotes only; constant after initialise

    mutable QMutex m_mutex;
    // guarded by m_mutex
    QMap<QString, lxclient::Quote> m_quotes; // the last, by symbol
    QMap<QString, qint64> m_positions;       // by symbol
    lxclient::QuoteAudit m_audit;
    QMap<QString, quint64> m_signals; // by sender
    quint64 m_position_events = 0;
};

#endif
