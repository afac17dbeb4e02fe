// A plugin that answers each message with its payload and with the addresses at which it finds the
// bus and the pool. Compiled with Qt's keywords, and without them.
#include <QObject> // before everything else: its macro emit is what oneTBB's headers do not survive

#include <lxbase/DispatchThread.h>
#include <lxbase/EventWorkerThread.h>
#include <lxbase/MessageCenter.h>
#include <lxbase/MessageCommonManage.h>
#include <lxbase/MessageInterface.h>
#include <lxbase/QuotationWorkerThread.h>
#include <lxdefine/PluginID.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

class Echo final : public IMessageInterface
{
    Q_OBJECT
    Q_PLUGIN_METADATA(IID "lxbase.package-test.Echo")
public:
    Echo() { Reg(m_id, this, MessageThread); }
    ~Echo() override { UnReg(m_id); }

    void RecvMsg(QString srcId, QVariant type, QVariant data) override
    {
        const auto center = reinterpret_cast<quintptr>(CMessageCenter::GetInstance());
        const auto pool = reinterpret_cast<quintptr>(CMessageCommonManage::GetInstance());
        const QVariantList answer{data, qulonglong(center), qulonglong(pool)};
        Put(m_id, new CMessageCommon(m_id, srcId, type, answer));
#ifndef QT_NO_KEYWORDS
        emit answered(); // the headers have left the macro alone
#endif
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

Q_SIGNALS:
    void answered();

private:
    const QString m_id = QString::fromLatin1("Echo"); // outlives this library in the bus
};

#include "Echo.moc"
