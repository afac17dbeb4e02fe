// MyPlugin: the lowest and the highest bid of each symbol, in the end table and for whoever asks.
#ifndef MYPLUGIN_H
#define MYPLUGIN_H

#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QMap>
#include <QMutex>

// Another plugin asks with a symbol, and is answered with a QVariantMap: "low" and "high", as
// texts.
constexpr int ExtremesWanted = lxclient::FirstFreeType;

class MyPlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "plugin.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    MyPlugin();

    lxclient::Report report() const override;

private:
    struct Extremes
    {
        lxclient::Decimal low;
        lxclient::Decimal high;
    };

    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onQuote(const lxclient::Quote& quote) override;
    void onRequest(const lxclient::Request& request) override;

    quint64 m_skip = 0; // constant after initialise

    mutable QMutex m_mutex;
    // guarded by m_mutex: written on the quotation worker, read by report on the main thread and by
    // onRequest on the message worker
    QMap<QString, Extremes> m_extremes; // by symbol
    lxclient::QuoteAudit m_audit;
};

#endif
