// A bus with much to do: what the shutdown program, or the library that it unloads, ends in the
// middle of. Inline, because the two run with different copies of the bus.
#ifndef LXSTRESS_BUSLOAD_H
#define LXSTRESS_BUSLOAD_H

#include <lxbase/MessageCenter.h>

#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QThread>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace lxstress {

class SlowPlugin final : public IMessageInterface
{
public:
    explicit SlowPlugin(const QString& id)
        : m_id(id)
    {
        Reg(m_id, this, MessageThread | QuotationThread | EventThread);
        Sub(m_id, 1, 1);
        SubEvent(m_id, 1, 1);
    }

    const QString& id() const { return m_id; }
    bool hasReceived() const { return m_received > 0; }

    void RecvMsg(QString, QVariant, QVariant data) override
    {
        receive();
        Put(m_id, new CMessageCommon(m_id, QString(), 1, data)); // never ends by itself
    }
    void RecvEvent(QString, QVariant, QVariant) override { receive(); }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { receive(); }

private:
    void receive()
    {
        QThread::msleep(2); // slow against the putting
        ++m_received;
    }

    const QString m_id;
    std::atomic<int> m_received{0};
};

using SlowPlugins = std::vector<std::unique_ptr<SlowPlugin>>;

inline void putOnEveryPath(int count)
{
    const QString srcId = QStringLiteral("load.producer");
    for (int i = 0; i < count; ++i) {
        CRegManager::Put(srcId, new CMessageCommon(srcId, QString(), 1, i));
        CRegManager::PutNetMsg(srcId, new CMessageCommon(srcId, QString(), 1, i));
        CRegManager::PutQuotationMsg(srcId, new CMessageCommon(srcId, QString(), 1, i));
        CRegManager::PutEvent(srcId, new CEventMessageCommon(srcId, QString(), 1, i));
    }
}

// Returns when the producers have just stopped: plugins registered and in the middle of receiving,
// inboxes and lists full.
inline SlowPlugins loadBus(CMessageCenter::IdlePolicy policy)
{
    CMessageCenter::GetInstance()->setIdlePolicy(policy);
    CMessageCenter::GetInstance()->Start();
    SlowPlugins plugins;
    for (int i = 0; i < 5; ++i)
        plugins.push_back(std::make_unique<SlowPlugin>(QStringLiteral("load.slow%1").arg(i)));
    std::vector<std::thread> producers;
    for (int i = 0; i < 3; ++i)
        producers.emplace_back([] { putOnEveryPath(5000); });
    for (std::thread& producer : producers)
        producer.join();
    for (const auto& plugin : plugins) {
        while (!plugin->hasReceived())
            std::this_thread::yield();
    }
    return plugins;
}

} // namespace lxstress

#endif
