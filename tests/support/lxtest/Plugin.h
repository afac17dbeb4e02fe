// Recorder and Plugin: receivers that remember what the bus called them with; and how tests put.
#ifndef LXTEST_PLUGIN_H
#define LXTEST_PLUGIN_H

#include <lxtest/Counted.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>

#include <QMutex>
#include <QSharedPointer>
#include <QString>
#include <QThread>
#include <QVariant>
#include <QVector>

#include <atomic>
#include <functional>
#include <utility>

namespace lxtest {

// One kind of traffic, or several.
using Kind = IMessageInterface::ThreadType;
constexpr Kind M = IMessageInterface::MessageThread;
constexpr Kind Q = IMessageInterface::QuotationThread;
constexpr Kind E = IMessageInterface::EventThread;
constexpr Kind All = M | Q | E;

using Reference = QSharedPointer<CMessageCommon>;

inline CMessageCenter& center()
{
    return *CMessageCenter::GetInstance();
}

// With a source field that is nobody's ID.
inline CountedMessage* message(const QString& dst, const QVariant& type, const QVariant& data = {})
{
    return new CountedMessage(QStringLiteral("origin"), dst, type, data);
}

inline CountedEvent* makeEvent(const QString& dst, const QVariant& type, const QVariant& data = {},
                               const QString& src = {})
{
    return new CountedEvent(src, dst, type, data);
}

// Delivers one item to one plugin. An event is of a type that leaves no trace in the log.
inline void deliverTo(const QString& id, Kind kind, const QVariant& data)
{
    if (kind == M)
        center().Put(QStringLiteral("tester"), message(id, 1, data));
    else if (kind == E)
        center().PutEvent(QStringLiteral("tester"), makeEvent(id, 0x30005, data));
    else
        center().ProcessQuotationMsg(Reference(message(id, 1, data)));
}

// IDs and types that no other test of the program uses.
inline QString uniqueId()
{
    static std::atomic<int> last{0};
    return QStringLiteral("plugin%1").arg(++last);
}

inline int uniqueType()
{
    static std::atomic<int> last{1000};
    return ++last;
}

// One call of a handler.
struct Call
{
    Kind kind;
    QString srcId;
    QVariant type;
    QVariant data;
    QString thread = QThread::currentThread()->objectName();
};

// A plugin with one function for its three handlers.
class Handler : public IMessageInterface
{
public:
    void RecvMsg(QString src, QVariant type, QVariant data) final { handle({M, src, type, data}); }
    void RecvEvent(QString src, QVariant type, QVariant data) final
    {
        handle({E, src, type, data});
    }
    void RecvQuotationMsg(QString src, QVariant type, QVariant data) final
    {
        handle({Q, src, type, data});
    }

private:
    virtual void handle(const Call& call) = 0;
};

// Remembers every handler call; the call is visible to the others once its action has returned.
class Recorder : public Handler
{
public:
    using Action = std::function<void(const Call&)>;

    // What the handlers do besides; set while no handler can run.
    void onCall(Action action) { m_action = std::move(action); }

    // What has been received so far, in order.
    QVector<Call> calls(Kind kinds = All) const
    {
        const QMutexLocker locker(&m_mutex);
        QVector<Call> result;
        for (const Call& call : m_calls) {
            if (call.kind & kinds)
                result << call;
        }
        return result;
    }
    QVariantList payloads(Kind kinds = All) const
    {
        QVariantList result;
        for (const Call& call : calls(kinds))
            result << call.data;
        return result;
    }
    int count() const { return calls().size(); }

    // Waits until `count` calls have been made. False: not in time.
    [[nodiscard]] bool waitForCalls(int count) const
    {
        return waitUntil([&] { return this->count() >= count; });
    }

protected:
    static QString settleMarker() { return QStringLiteral("lxtest.settle"); }
    std::atomic<int> m_settled{0}; // how many settle markers have come

private:
    void handle(const Call& call) override
    {
        if (call.data == settleMarker()) {
            ++m_settled;
            return;
        }
        if (m_action)
            m_action(call);
        const QMutexLocker locker(&m_mutex);
        m_calls << call;
    }

    Action m_action;
    mutable QMutex m_mutex;
    QVector<Call> m_calls; // guarded by m_mutex
};

// A recorder that is registered from its construction until leave() or its destruction.
class Plugin final : public Recorder
{
public:
    explicit Plugin(Kind kinds)
        : Plugin(uniqueId(), kinds)
    { }
    Plugin(const QString& id, Kind kinds)
        : m_id(id)
        , m_kinds(kinds)
    {
        Reg(m_id, this, m_kinds);
    }
    ~Plugin() override { leave(); }

    const QString& id() const { return m_id; }

    // Subscribe this plugin; `oper` 2 ends one subscription.
    void subscribe(const QVariant& type, int oper = 1) { Sub(m_id, type, oper); }
    void subscribeEvent(const QVariant& type, int oper = 1) { SubEvent(m_id, type, oper); }

    // Returns when all that this thread has put to this plugin has been handled: a marker is put
    // behind it, and not recorded. It does not cover the dispatch threads. False: not in time.
    [[nodiscard]] bool settle()
    {
        int expected = m_settled;
        for (const Kind kind : {M, Q, E}) {
            if (m_kinds & kind) {
                ++expected;
                deliverTo(m_id, kind, settleMarker());
            }
        }
        return waitUntil([&] { return m_settled == expected; });
    }

    void leave()
    {
        if (std::exchange(m_registered, false))
            UnReg(m_id);
    }

private:
    const QString m_id;
    const Kind m_kinds;
    bool m_registered = true;
};

} // namespace lxtest

#endif
