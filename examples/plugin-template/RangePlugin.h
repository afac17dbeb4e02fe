// RangePlugin: the highest and the lowest bid of each symbol.
#ifndef RANGEPLUGIN_H
#define RANGEPLUGIN_H

#include <lxbase/MessageInterface.h>
#include <lxclient/Plugin.h>
#include <lxclient/QuoteAudit.h>

#include <QMap>
#include <QMutex>

class RangePlugin : public IMessageInterface, public lxclient::Plugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "range.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    bool initialise(const QString& id, const QVariantMap& settings, QString& reason) override;
    void shutDown() override;
    lxclient::Report report() const override;

    void RecvMsg(QString, QVariant, QVariant) override { }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) override;

private:
    struct Range
    {
        lxclient::Decimal low;
        lxclient::Decimal high;
    };

    QString m_id; // constant after initialise

    mutable QMutex m_mutex;
    // guarded by m_mutex: written on the quotation worker, read by report on the main thread
    QMap<QString, Range> m_ranges; // by symbol
    lxclient::QuoteAudit m_audit;
};

#endif
