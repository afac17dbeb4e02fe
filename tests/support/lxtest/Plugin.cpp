#include <lxtest/Plugin.h>

#include <QThread>

namespace lxtest {

namespace {

const QString settleMarker = QStringLiteral("lxtest.settle");

} // namespace

CountedMessage* message(const QString& dst, const QVariant& type, const QVariant& data)
{
    return new CountedMessage(QStringLiteral("origin"), dst, type, data);
}

CountedEvent* makeEvent(const QString& dst, const QVariant& type, const QVariant& data,
                        const QString& src)
{
    return new CountedEvent(src, dst, type, data);
}

void deliverTo(const QString& id, Kind kind, const QVariant& data)
{
    if (kind == M)
        center().Put(QStringLiteral("tester"), message(id, 1, data));
    else if (kind == E)
        center().PutEvent(QStringLiteral("tester"), makeEvent(id, 0x30005, data));
    else
        center().ProcessQuotationMsg(Reference(message(id, 1, data)));
}

QString uniqueId()
{
    static std::atomic<int> last{0};
    return QStringLiteral("plugin%1").arg(++last);
}

int uniqueType()
{
    static std::atomic<int> last{1000};
    return ++last;
}

QVector<Call> Recorder::calls(Kind kinds) const
{
    const QMutexLocker locker(&m_mutex);
    QVector<Call> result;
    for (const Call& call : m_calls) {
        if (call.kind & kinds)
            result << call;
    }
    return result;
}

QVariantList Recorder::payloads(Kind kinds) const
{
    QVariantList result;
    for (const Call& call : calls(kinds))
        result << call.data;
    return result;
}

int Recorder::count() const
{
    const QMutexLocker locker(&m_mutex);
    return m_calls.size();
}

void Recorder::record(Kind kind, const QString& src, const QVariant& type, const QVariant& data)
{
    if (data.type() == QVariant::String && data.toString() == settleMarker) {
        ++m_settled;
        return;
    }
    const Call call{kind, src, type, data, QThread::currentThread()->objectName()};
    if (m_action)
        m_action(call);
    const QMutexLocker locker(&m_mutex);
    m_calls << call;
}

bool Plugin::settle()
{
    int expected = m_settled;
    for (const Kind kind : {M, Q, E}) {
        if (m_kinds & kind) {
            ++expected;
            deliverTo(m_id, kind, settleMarker);
        }
    }
    return waitUntil([&] { return m_settled == expected; });
}

} // namespace lxtest
