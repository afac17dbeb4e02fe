/// \file
/// CEventMessageCommon: the record in which events travel.
#ifndef LXEVENT_EVENTMESSAGECOMMON_H
#define LXEVENT_EVENTMESSAGECOMMON_H

#include <lxevent/lxevent_export.h>

#include <QString>
#include <QVariant>

/// A publisher makes the record with `new`, fills it and hands it to PutEvent, which owns it from
/// that call on and deletes it; receivers get copies of its values. The record has no lock: one
/// thread fills it, after the hand-over it is only read.
class LXEVENT_EXPORT CEventMessageCommon
{
public:
    /// Empty strings, invalid variants.
    CEventMessageCommon();

    /// `dstId` empty: for every subscriber of `type` and the publisher's relation groups.
    CEventMessageCommon(const QString& srcId, const QString& dstId, const QVariant& type,
                        const QVariant& msg);

    /// Copies every field.
    /// \{
    CEventMessageCommon(const CEventMessageCommon& other)
        : m_src_id(other.m_src_id)
        , m_dst_id(other.m_dst_id)
        , m_type(other.m_type)
        , m_msg(other.m_msg)
    { }

    CEventMessageCommon& operator=(const CEventMessageCommon& other)
    {
        m_src_id = other.m_src_id;
        m_dst_id = other.m_dst_id;
        m_type = other.m_type;
        m_msg = other.m_msg;
        return *this;
    }
    /// \}

    virtual ~CEventMessageCommon();

    /// ID of the plugin that made the event; PutEvent fills an empty one with its caller's ID.
    /// \{
    QString GetSrcid();
    void SetSrcid(QString srcId);
    /// \}

    /// ID of the one receiver; empty for a broadcast.
    /// \{
    QString GetDstid();
    void SetDstid(QString dstId);
    /// \}

    /// Key of event subscriptions and relation groups. Best an int.
    /// \{
    QVariant GetType();
    void SetType(QVariant type);
    /// \}

    /// The payload.
    /// \{
    QVariant GetMsg();
    void SetMsg(QVariant msg);
    /// \}

private:
    QString m_src_id;
    QString m_dst_id;
    QVariant m_type;
    QVariant m_msg;
};

#endif
