// The client's own record: the members that the bus requires, in another order, and more of its
// own.
#pragma once

#include <QDateTime>
#include <QString>
#include <QVariant>

class Q_DECL_EXPORT CMessageCommon
{
public:
    CMessageCommon() = default;
    CMessageCommon(const QString& srcId, const QString& dstId, const QVariant& type,
                   const QVariant& msg)
        : m_dst_id(dstId)
        , m_src_id(srcId)
        , m_msg(msg)
        , m_type(type)
    { }
    CMessageCommon(const CMessageCommon&) = default;
    virtual ~CMessageCommon();

    QString GetSrcid() { return m_src_id; }
    void SetSrcid(QString srcId) { m_src_id = srcId; }
    QString GetDstid() { return m_dst_id; }
    void SetDstid(QString dstId) { m_dst_id = dstId; }
    QVariant GetType() { return m_type; }
    void SetType(QVariant type) { m_type = type; }
    QVariant GetMsg() { return m_msg; }
    void SetMsg(QVariant msg) { m_msg = msg; }
    bool GetSendToNetFlag() { return m_send_to_net; }
    void SetSendToNetFlag(bool sendToNet) { m_send_to_net = sendToNet; }
    QString traceId() const { return m_trace_id; }
    void setTraceId(const QString& traceId) { m_trace_id = traceId; }
    int GetIndex() const { return m_index; }
    void SetIndex(const int& index) { m_index = index; }

private:
    QDateTime m_made = QDateTime::currentDateTimeUtc();
    QString m_dst_id;
    QString m_src_id;
    QVariant m_msg;
    qint32 m_priority = 0;
    QString m_trace_id;
    bool m_send_to_net = false;
    QVariant m_type;
    int m_index = -1;
};
