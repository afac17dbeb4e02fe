#include <lxtest/Plugin.h>

#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QThread>

#include <atomic>
#include <utility>

namespace lxtest {

namespace {

const QString settleId = QStringLiteral("lxtest.settle");
const int untracedEventType = 0x30005; // the marker leaves no trace in the log

} // namespace

void Recorder::onCall(Action action)
{
    m_action = std::move(action);
}

QVector<Call> Recorder::calls() const
{
    const QMutexLocker locker(&m_mutex);
    QVector<Call> copy = m_calls;
    copy.detach(); // storage that is shared would be read without the lock
    return copy;
}

QVector<Call> Recorder::calls(Handler handler) const
{
    QVector<Call> result;
    for (const Call& call : calls()) {
        if (call.handler == handler)
            result << call;
    }
    return result;
}

QVariantList Recorder::payloads() const
{
    QVariantList result;
    for (const Call& call : calls())
        result << call.data;
    return result;
}

QVariantList Recorder::payloads(Handler handler) const
{
    QVariantList result;
    for (const Call& call : calls(handler))
        result << call.data;
    return result;
}

int Recorder::count() const
{
    const QMutexLocker locker(&m_mutex);
    return m_calls.size();
}

bool Recorder::waitForCalls(int count) const
{
    return waitUntil([&] { return this->count() >= count; });
}

int Recorder::settled() const
{
    const QMutexLocker locker(&m_mutex);
    return m_settled;
}

void Recorder::RecvMsg(QString srcId, QVariant type, QVariant data)
{
    record(Handler::Message, srcId, type, data);
}

void Recorder::RecvEvent(QString srcId, QVariant type, QVariant data)
{
    record(Handler::Event, srcId, type, data);
}

void Recorder::RecvQuotationMsg(QString srcId, QVariant type, QVariant data)
{
    record(Handler::Quotation, srcId, type, data);
}

void Recorder::record(Handler handler, const QString& srcId, const QVariant& type,
                      const QVariant& data)
{
    if (data.type() == QVariant::String && data.toString() == settleId) {
        const QMutexLocker locker(&m_mutex);
        ++m_settled;
        return;
    }
    const Call call{handler, srcId, type, data, QThread::currentThread()->objectName()};
    if (m_action)
        m_action(call);
    const QMutexLocker locker(&m_mutex);
    m_calls << call;
}

Plugin::Plugin(ThreadType type)
    : Plugin(uniqueId(), type)
{ }

Plugin::Plugin(const QString& id, ThreadType type)
    : m_id(id)
    , m_type(type)
    , m_registered(true)
{
    Reg(m_id, this, m_type);
}

Plugin::~Plugin()
{
    leave();
}

void Plugin::subscribe(const QVariant& type, int oper)
{
    Sub(m_id, type, oper);
}

void Plugin::subscribeEvent(const QVariant& type, int oper)
{
    SubEvent(m_id, type, oper);
}

bool Plugin::settle()
{
    int expected = settled();
    if (m_type & MessageThread) {
        ++expected;
        Put(settleId, new CMessageCommon(settleId, m_id, 0, settleId));
    }
    if (m_type & EventThread) {
        ++expected;
        PutEvent(settleId, new CEventMessageCommon(settleId, m_id, untracedEventType, settleId));
    }
    if (m_type & QuotationThread) {
        ++expected;
        CMessageCenter::GetInstance()->ProcessQuotationMsg(
            QSharedPointer<CMessageCommon>::create(settleId, m_id, 0, settleId));
    }
    return waitUntil([&] { return settled() == expected; });
}

void Plugin::leave()
{
    if (std::exchange(m_registered, false))
        UnReg(m_id);
}

QString uniqueId(const QString& prefix)
{
    static std::atomic<int> last{0};
    return prefix + QString::number(++last);
}

int uniqueType()
{
    static std::atomic<int> last{1000};
    return ++last;
}

} // namespace lxtest
