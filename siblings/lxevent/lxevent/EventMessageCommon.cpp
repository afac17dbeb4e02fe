#include <lxevent/EventMessageCommon.h>

#include <utility>

CEventMessageCommon::CEventMessageCommon() = default;

CEventMessageCommon::CEventMessageCommon(const QString& srcId, const QString& dstId,
                                         const QVariant& type, const QVariant& msg)
    : m_src_id(srcId)
    , m_dst_id(dstId)
    , m_type(type)
    , m_msg(msg)
{ }

CEventMessageCommon::~CEventMessageCommon() = default;

QString CEventMessageCommon::GetSrcid()
{
    return m_src_id;
}

void CEventMessageCommon::SetSrcid(QString srcId)
{
    m_src_id = std::move(srcId);
}

QString CEventMessageCommon::GetDstid()
{
    return m_dst_id;
}

void CEventMessageCommon::SetDstid(QString dstId)
{
    m_dst_id = std::move(dstId);
}

QVariant CEventMessageCommon::GetType()
{
    return m_type;
}

void CEventMessageCommon::SetType(QVariant type)
{
    m_type = std::move(type);
}

QVariant CEventMessageCommon::GetMsg()
{
    return m_msg;
}

void CEventMessageCommon::SetMsg(QVariant msg)
{
    m_msg = std::move(msg);
}
