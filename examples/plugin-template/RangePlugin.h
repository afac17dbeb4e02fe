// RangePlugin: the highest and the lowest bid of each symbol.
#ifndef RANGEPLUGIN_H
#define RANGEPLUGIN_H

#include <lxclient/PluginBase.h>
#include <lxclient/QuoteAudit.h>

#include <QMap>
#include <QMutex>

class RangePlugin : public lxclient::PluginBase
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "range.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    RangePlugin();

    lxclient::Report report() const override;

private:
    struct Range
    {
        lxclient::Decimal low;
        lxclient::Decimal high;
    };

    lxclient::Error onInitialise(const QVariantMap& settings) override;
    void onQuote(const lxclient::Quote& quote) override;

    mutable QMutex m_mutex;
    // guarded by m_mutex: written on the quotation worker, read by report on the main thread
    QMap<QString, Range> m_ranges; // by symbol
    lxclient::QuoteAudit m_audit;
};

#endif
