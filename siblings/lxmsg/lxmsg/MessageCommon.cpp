#include <lxmsg/MessageCommon.h>

#include <utility>

CMessageCommon::CMessageCommon() = default;

CMessageCommon::CMessageCommon(const QString& srcId, const QString& dstId, const QVariant& type,
                               const QVariant& msg)
    : m_src_id(srcId)
    , m_dst_id(dstId)
    , m_type(type)
    , m_msg(msg)
{ }

CMessageCommon::~CMessageCommon() = default;

QString CMessageCommon::GetSrcid()
{
    return m_src_id;
}

void CMessageCommon::SetSrcid(QString srcId)
{
    m_src_id = std::move(srcId);
}

QString CMessageCommon::GetDstid()
{
    return m_dst_id;
}

void CMessageCommon::SetDstid(QString dstId)
{
    m_dst_id = std::move(dstId);
}

QVariant CMessageCommon::GetType()
{
    return m_type;
}

void CMessageCommon::SetType(QVariant type)
{
    m_type = std::move(type);
}

QVariant CMessageCommon::GetMsg()
{
    return m_msg;
}

void CMessageCommon::SetMsg(QVariant msg)
{
    m_msg = std::move(msg);
}

bool CMessageCommon::GetSendToNetFlag()
{
    return m_send_to_net;
}

void CMessageCommon::SetSendToNetFlag(bool sendToNet)
{
    m_send_to_net = sendToNet;
}
