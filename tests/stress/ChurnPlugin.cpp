// The plugin of the churn program, a library that is loaded and unloaded again and again.
#include "ChurnPlugin.h"

#include <lxbase/MessageInterface.h>

#include <lxmsg/MessageCommon.h>

#include <atomic>

class ChurnPlugin final : public IMessageInterface, public ChurnVisitor
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ChurnVisitor_iid)
    Q_INTERFACES(ChurnVisitor)
public:
    void enter(const QString& id, const QString& home, int type) override
    {
        m_id = id;
        m_home = home;
        Reg(m_id, this, MessageThread | QuotationThread | EventThread);
        Sub(m_id, type, 1);
        SubEvent(m_id, type, 1);
    }

    void leave() override
    {
        UnReg(m_id);
        m_left = true;
        m_id = QStringLiteral("left");
    }

    int messages() const override { return m_messages; }
    int events() const override { return m_events; }
    int quotations() const override { return m_quotations; }

    void RecvMsg(QString, QVariant type, QVariant data) override
    {
        count(m_messages);
        Put(m_id, new CMessageCommon(m_id, m_home, type, data));
    }
    void RecvEvent(QString, QVariant, QVariant) override { count(m_events); }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { count(m_quotations); }

private:
    void count(std::atomic<int>& calls)
    {
        if (m_left)
            qFatal("a handler was entered after UnReg had returned");
        ++calls;
    }

    QString m_id;
    QString m_home;
    std::atomic<bool> m_left{false};
    std::atomic<int> m_messages{0};
    std::atomic<int> m_events{0};
    std::atomic<int> m_quotations{0};
};

#include "ChurnPlugin.moc"
