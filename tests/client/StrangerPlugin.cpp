// A plugin that the host knows nothing of: counts quotes, and says on stderr how it is led through
// its life. Settings: "strangers" how many, "refuse" which of them cannot start, "fault" which of
// them reports a fault.
#include <lxbase/MessageInterface.h>
#include <lxclient/Plugin.h>
#include <lxclient/QuoteAudit.h>

#include <QMutex>

#include <cstdio>

class StrangerPlugin : public IMessageInterface, public lxclient::Plugin
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID LxClientPlugin_iid FILE "stranger.json")
    Q_INTERFACES(lxclient::Plugin)
public:
    Q_INVOKABLE StrangerPlugin() = default;
    ~StrangerPlugin() override
    {
        if (!m_id.isEmpty())
            say("destroyed");
    }

    bool initialise(const QString& id, const QVariantMap& settings, QString& reason) override
    {
        m_id = id;
        m_faulty = settings.value("fault") == id;
        if (settings.value("refuse") == id) {
            reason = "told to refuse";
            return false;
        }
        const QStringList symbols = settings.value(lxclient::setting::Symbols).toStringList();
        m_audit.expect(symbols);
        Reg(m_id, this, QuotationThread);
        for (const QString& symbol : symbols)
            Sub(m_id, lxclient::quoteType(settings, symbol), 1);
        say("initialised");
        return true;
    }

    void shutDown() override
    {
        UnReg(m_id);
        say("shut down");
    }

    lxclient::Report report() const override
    {
        lxclient::Report report;
        const QMutexLocker locker(&m_mutex);
        m_audit.post(report);
        report.remarks.append("a stranger's remark");
        if (m_faulty)
            report.faults.append("told to be faulty");
        return report;
    }

    void RecvMsg(QString, QVariant, QVariant) override { }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant data) override
    {
        const QMutexLocker locker(&m_mutex);
        m_audit.count(data.value<lxclient::Quote>());
    }

private:
    void say(const char* what) const { std::fprintf(stderr, "%s %s\n", qPrintable(m_id), what); }

    QString m_id;
    bool m_faulty = false;
    mutable QMutex m_mutex;
    lxclient::QuoteAudit m_audit; // guarded by m_mutex
};

#include "StrangerPlugin.moc"
