/// \file
/// CMessageCommon: the record in which ordinary messages, network messages and quotations travel.
#ifndef LXMSG_MESSAGECOMMON_H
#define LXMSG_MESSAGECOMMON_H

#include <lxmsg/lxmsg_export.h>

#include <QString>
#include <QVariant>

/// A sender makes the record with `new`, fills it and hands it to a put operation of the bus, which
/// owns it from that call on and deletes it; receivers get copies of its values. The record has no
/// lock: one thread fills it, after the hand-over it is only read.
class LXMSG_EXPORT CMessageCommon
{
public:
    /// Empty strings, invalid variants, integer 0, flag false, index -1.
    CMessageCommon();

    /// `dstId` empty: for every subscriber of `type`. The other fields as above.
    CMessageCommon(const QString& srcId, const QString& dstId, const QVariant& type,
                   const QVariant& msg);

    /// Copies every field, the index included: a copy of a pooled record names the same pool slot
    /// and must therefore never be given back to the pool.
    CMessageCommon(const CMessageCommon& other)
        : m_src_id(other.m_src_id)
        , m_dst_id(other.m_dst_id)
        , m_type(other.m_type)
        , m_reserved(other.m_reserved)
        , m_trace_id(other.m_trace_id)
        , m_send_to_net(other.m_send_to_net)
        , m_msg(other.m_msg)
        , m_index(other.m_index)
    { }

    /// Cannot be assigned: that would overwrite the index by which the pool knows the record.
    CMessageCommon& operator=(const CMessageCommon& other) = delete;

    virtual ~CMessageCommon();

    /// ID of the plugin that made the record. The bus only quotes it in log records; receivers see
    /// the ID that was given to the put.
    /// \{
    QString GetSrcid();
    void SetSrcid(QString srcId);
    /// \}

    /// ID of the one receiver; empty for every subscriber of the type.
    /// \{
    QString GetDstid();
    void SetDstid(QString dstId);
    /// \}

    /// Key of subscriptions. Best an int: variants of unlike kinds may compare equal.
    /// \{
    QVariant GetType();
    void SetType(QVariant type);
    /// \}

    /// The payload.
    /// \{
    QVariant GetMsg();
    void SetMsg(QVariant msg);
    /// \}

    /// Whether a broadcast goes to the net plugin as well.
    /// \{
    bool GetSendToNetFlag();
    void SetSendToNetFlag(bool sendToNet);
    /// \}

    /// Names the business transaction that the message belongs to. The bus carries it along, and
    /// neither logs it nor hands it to receivers.
    /// \{
    QString traceId() const { return m_trace_id; }
    void setTraceId(const QString& traceId) { m_trace_id = traceId; }
    /// \}

    /// Slot of the record in the pool that made it; -1 for a record made elsewhere. Only the pool
    /// sets it.
    /// \{
    int GetIndex() const { return m_index; }
    void SetIndex(const int& index) { m_index = index; }
    /// \}

private:
    QString m_src_id;
    QString m_dst_id;
    QVariant m_type;
    qint32 m_reserved = 0; // without meaning so far; copied with the record
    QString m_trace_id;
    bool m_send_to_net = false;
    QVariant m_msg;
    int m_index = -1;
};

#endif
