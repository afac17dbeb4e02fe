#include <lxbase/MessageInterface.h>

#include <lxbase/CallGate.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageCenter.h>

#include <utility>

IMessageInterface::IMessageInterface(QObject* parent)
    : QObject(parent)
{ }

IMessageInterface::~IMessageInterface() = default;

void IMessageInterface::Reg(QString id, IMessageInterface* pInterface, ThreadType type)
{
    const lxbase::detail::CallGate::Pass pass(lxbase::detail::centerGate);
    if (pass.mayLog())
        qCDebug(lcLxbase) << "---- pthis:" << pInterface << "##" << this << static_cast<int>(type);
    CRegManager::Reg(std::move(id), pInterface, type);
}

void IMessageInterface::UnReg(QString id)
{
    CRegManager::UnReg(std::move(id));
}

void IMessageInterface::Put(QString srcId, CMessageCommon* pMsg)
{
    CRegManager::Put(std::move(srcId), pMsg);
}

void IMessageInterface::PutEvent(QString srcId, CEventMessageCommon* pMsg)
{
    CRegManager::PutEvent(std::move(srcId), pMsg);
}

void IMessageInterface::PutNetMsg(QString srcId, CMessageCommon* pMsg)
{
    CRegManager::PutNetMsg(std::move(srcId), pMsg);
}

void IMessageInterface::PutQuotationMsg(QString srcId, CMessageCommon* pMsg)
{
    CRegManager::PutQuotationMsg(std::move(srcId), pMsg);
}

void IMessageInterface::Sub(QString id, QVariant type, int oper)
{
    CRegManager::Sub(std::move(id), std::move(type), oper);
}

void IMessageInterface::SubEvent(QString id, QVariant type, int oper)
{
    CRegManager::SubEvent(std::move(id), std::move(type), oper);
}

void IMessageInterface::setRelation(const QString& from, const QString& to, int type,
                                    RelationColor_t color, int oper)
{
    CRegManager::setRelation(from, to, type, color, oper);
}

CRegManager::CRegManager() = default;

CRegManager::~CRegManager() = default;

void CRegManager::Reg(QString id, IMessageInterface* pInterface, IMessageInterface::ThreadType type)
{
    CMessageCenter::GetInstance()->Reg(std::move(id), pInterface, type);
}

void CRegManager::UnReg(QString id)
{
    CMessageCenter::GetInstance()->UnReg(std::move(id));
}

void CRegManager::Put(QString srcId, CMessageCommon* pMsg)
{
    CMessageCenter::GetInstance()->Put(std::move(srcId), pMsg);
}

void CRegManager::PutEvent(QString srcId, CEventMessageCommon* pMsg)
{
    CMessageCenter::GetInstance()->PutEvent(std::move(srcId), pMsg);
}

void CRegManager::PutNetMsg(QString srcId, CMessageCommon* pMsg)
{
    CMessageCenter::GetInstance()->PutNetMsg(std::move(srcId), pMsg);
}

void CRegManager::PutQuotationMsg(QString srcId, CMessageCommon* pMsg)
{
    CMessageCenter::GetInstance()->PutQuotationMsg(std::move(srcId), pMsg);
}

void CRegManager::Sub(QString id, QVariant type, int oper)
{
    CMessageCenter::GetInstance()->Sub(std::move(id), std::move(type), oper);
}

void CRegManager::SubEvent(QString id, QVariant type, int oper)
{
    CMessageCenter::GetInstance()->SubEvent(std::move(id), std::move(type), oper);
}

void CRegManager::setRelation(const QString& from, const QString& to, int type,
                              RelationColor_t color, int oper)
{
    CMessageCenter::GetInstance()->setRelation(from, to, type, color, oper);
}
