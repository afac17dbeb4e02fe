// The plugin of the churn program, a library that is loaded and unloaded again and again. What it
// gives the bus to keep is data of the library, which dangles unless the bus makes copies; what it
// puts is not, since that may wait in an inbox longer than the library stays.
#include "ChurnPlugin.h"
#include "Stress.h"

class ChurnPlugin final : public lxtest::Handler, public ChurnVisitor
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ChurnVisitor_iid)
    Q_INTERFACES(ChurnVisitor)
public:
    void enter() override
    {
        const QString id = QStringLiteral("churn#" CHURNER);
        Reg(id, this, lxtest::All);
        Sub(id, QStringLiteral(CHURN_TYPE), 1);
        SubEvent(id, QStringLiteral(CHURN_TYPE), 1);
        for (const QString& member : {id, QStringLiteral(CHURN_HOME)})
            setRelation(QStringLiteral(CHURN_BASE), member, churnRelatedType, RELATION_GREEN, 1);
        for (const int oper : {2, 1}) // instead of the one that an earlier visitor made
            Sub(QStringLiteral(CHURN_HOME), QStringLiteral(CHURN_TYPE), oper);
    }

    void leave() override
    {
        UnReg(QStringLiteral("churn#" CHURNER));
        m_left = true;
    }

private:
    void handle(const lxtest::Call& call) override
    {
        if (m_left)
            qFatal("a handler was entered after UnReg had returned");
        received |= call.type.userType() == QMetaType::Int ? RelatedEvents : int(call.kind);
        if (call.kind == lxtest::M)
            lxstress::put(lxstress::Direct, m_source, m_home, call.type, call.data);
    }

    const QString m_source = QString::fromLatin1("churn#" CHURNER);
    const QString m_home = QString::fromLatin1(CHURN_HOME);
    bool m_left = false; // a plain one: UnReg orders it behind all handlers
};

#include "ChurnPlugin.moc"
