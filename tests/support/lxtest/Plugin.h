// Plugin: a plugin that remembers what the bus called it with; what tests put; and how they wait:
// for a condition, never for a time. A deadline that passes is a failure.
#ifndef LXTEST_PLUGIN_H
#define LXTEST_PLUGIN_H

#include <lxbase/MessageCenter.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QEvent>
#include <QSemaphore>
#include <QThread>

#include <functional>
#include <future>
#include <utility>
#include <vector>

namespace lxtest {

constexpr int deadlineMs = 30000;

// Returns when `condition` holds. False: not in time.
[[nodiscard]] inline bool waitUntil(const std::function<bool()>& condition)
{
    const QDeadlineTimer deadline(deadlineMs);
    while (!condition()) {
        if (deadline.hasExpired())
            return false;
        QThread::msleep(1);
    }
    return true;
}

// Fails the test, with the condition's text, if it does not come true in time.
#define LX_WAIT_FOR(condition)                                                                     \
    QVERIFY2(lxtest::waitUntil([&] { return bool(condition); }),                                   \
             "did not come true in time: " #condition)

// Waits for a signal of another thread, and ends the program with a message if none comes: it may
// stand in a handler, where no test can be failed.
class Latch
{
public:
    void signal() { m_signals.release(); }
    void wait()
    {
        if (!m_signals.tryAcquire(1, deadlineMs))
            qFatal("a latch was not signalled in time");
    }

private:
    QSemaphore m_signals;
};

// Runs work(0) to work(count - 1), each on a thread of its own. Who lets go of the result waits for
// them.
template<class Work>
[[nodiscard]] std::vector<std::future<void>> onThreads(int count, const Work& work)
{
    std::vector<std::future<void>> threads;
    for (int number = 0; number < count; ++number)
        threads.push_back(std::async(std::launch::async, work, number));
    return threads;
}

// Lets everything that the calling thread's event loop has been asked to delete go.
inline void runDeferredDeletes()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

// Counts the objects of a class that derives from it: one that is not destroyed leaves alive()
// above zero, one that is destroyed twice below.
template<class What>
class Counts
{
public:
    Counts() { ++s_alive; }
    Counts(const Counts&) { ++s_alive; }
    Counts& operator=(const Counts&) = default;
    ~Counts() { --s_alive; }

    static int alive() { return s_alive; }

private:
    inline static std::atomic<int> s_alive{0};
};

struct CountedMessage : CMessageCommon, Counts<CountedMessage>
{
    using CMessageCommon::CMessageCommon;
};
struct CountedEvent : CEventMessageCommon, Counts<CountedEvent>
{
    using CEventMessageCommon::CEventMessageCommon;
};
struct CountedPayload : Counts<CountedPayload> // shows whether the item that holds it is freed
{ };

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
inline int uniqueType()
{
    static std::atomic<int> last{1000};
    return ++last;
}
inline QString uniqueId()
{
    return QStringLiteral("plugin%1").arg(uniqueType());
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

// Registered from its construction until leave() or its destruction. Remembers every handler call;
// a call is visible to the others once its action has returned.
class Plugin final : public Handler
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

    void leave()
    {
        if (std::exchange(m_registered, false))
            UnReg(m_id);
    }

    const QString& id() const { return m_id; }

    // What the handlers do besides; set while no handler can run.
    void onCall(std::function<void(const Call&)> action) { m_action = std::move(action); }

    // Subscribe this plugin; `oper` 2 ends one subscription.
    void subscribe(const QVariant& type, int oper = 1) { Sub(m_id, type, oper); }
    void subscribeEvent(const QVariant& type, int oper = 1) { SubEvent(m_id, type, oper); }

    // What has been received so far, in order.
    QVector<Call> calls() const
    {
        const QMutexLocker locker(&m_mutex);
        QVector<Call> copy = m_calls;
        copy.detach(); // storage that is shared would be read without the lock
        return copy;
    }
    QVariantList payloads() const
    {
        QVariantList result;
        for (const Call& call : calls())
            result << call.data;
        return result;
    }
    int count() const { return calls().size(); }

    // Waits until `count` calls have been made. False: not in time.
    [[nodiscard]] bool waitForCalls(int count) const
    {
        return waitUntil([&] { return this->count() >= count; });
    }

    // Returns when all that this thread has put to this plugin has been handled (but what a
    // dispatch thread still has): a marker is put behind it, and not recorded. False: not in time.
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

private:
    static QString settleMarker() { return QStringLiteral("lxtest.settle"); }

    void handle(const Call& call) override
    {
        // The first comparison of unlike variants, made by two threads at once, lets Qt warn.
        if (call.data.userType() == QMetaType::QString && call.data == settleMarker()) {
            ++m_settled;
            return;
        }
        if (m_action)
            m_action(call);
        const QMutexLocker locker(&m_mutex);
        m_calls << call;
    }

    const QString m_id;
    const Kind m_kinds;
    bool m_registered = true;
    std::function<void(const Call&)> m_action;
    std::atomic<int> m_settled{0}; // how many settle markers have come
    mutable QMutex m_mutex;
    QVector<Call> m_calls; // guarded by m_mutex
};

} // namespace lxtest

Q_DECLARE_METATYPE(lxtest::CountedPayload)

#endif
