// Recorder and Plugin: receivers that remember what the bus called them with.
#ifndef LXTEST_PLUGIN_H
#define LXTEST_PLUGIN_H

#include <lxbase/MessageInterface.h>

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

#include <functional>

namespace lxtest {

enum class Handler { Message, Event, Quotation };

// One call of a handler.
struct Call
{
    Handler handler;
    QString srcId;
    QVariant type;
    QVariant data;
    QString thread; // object name of the thread on which the handler ran
};

// Remembers every handler call; the call is visible to the others once its action has returned.
class Recorder : public IMessageInterface
{
public:
    using Action = std::function<void(const Call&)>;

    // What the handlers do besides; set while no handler can run.
    void onCall(Action action);

    // What has been received so far, in order.
    QVector<Call> calls() const;
    QVector<Call> calls(Handler handler) const;
    QVariantList payloads() const;
    QVariantList payloads(Handler handler) const;
    int count() const;

    // Waits until `count` calls have been made. False: not in time.
    [[nodiscard]] bool waitForCalls(int count) const;

    void RecvMsg(QString srcId, QVariant type, QVariant data) override;
    void RecvEvent(QString srcId, QVariant type, QVariant data) override;
    void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) override;

protected:
    // How many settle markers have come.
    int settled() const;

private:
    void record(Handler handler, const QString& srcId, const QVariant& type, const QVariant& data);

    Action m_action;
    mutable QMutex m_mutex;
    QVector<Call> m_calls; // guarded by m_mutex
    int m_settled = 0;     // guarded by m_mutex
};

// A recorder that is registered from its construction until leave() or its destruction.
class Plugin final : public Recorder
{
public:
    // With an ID of its own; with the given ID.
    explicit Plugin(ThreadType type);
    Plugin(const QString& id, ThreadType type);
    ~Plugin() override;

    const QString& id() const { return m_id; }

    // Subscribe this plugin; `oper` 2 ends one subscription.
    void subscribe(const QVariant& type, int oper = 1);
    void subscribeEvent(const QVariant& type, int oper = 1);

    // Returns when everything that this thread has put to this plugin before has been handled: a
    // marker is put to it behind that and waited for (it is not recorded). False: not in time.
    //
    // What comes through a dispatch thread is not covered.
    [[nodiscard]] bool settle();

    void leave();

private:
    const QString m_id;
    const ThreadType m_type;
    bool m_registered = false;
};

// IDs and types that no other test of the program uses.
QString uniqueId(const QString& prefix = QStringLiteral("plugin"));
int uniqueType();

} // namespace lxtest

#endif
