// A bus with much to do: what the shutdown program, or the library that it unloads, ends in the
// middle of.
#ifndef LXSTRESS_BUSLOAD_H
#define LXSTRESS_BUSLOAD_H

#include "Traffic.h"

#include <lxbase/MessageCenter.h>

#include <QLoggingCategory>
#include <QThread>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace lxstress {

// Whether the next handler ends the process.
inline std::atomic<bool> exitInHandler{false};

class SlowPlugin final : public Receiver
{
public:
    explicit SlowPlugin(const QString& id)
        : m_id(id)
    {
        join(m_id, 1);
    }

    void leave() { UnReg(m_id); }
    bool hasReceived() const { return m_has_received; }

private:
    void receive(Path path, const QString&, const QVariant&, const QVariant& data) override
    {
        if (exitInHandler.exchange(false))
            std::exit(0);
        QThread::msleep(2); // slow against the putting
        m_has_received = true;
        if (path == Direct)
            put(Direct, m_id, QString(), 1, data); // never ends by itself
    }

    const QString m_id;
    std::atomic<bool> m_has_received{false};
};

constexpr int slowPluginCount = 5;
using SlowPlugins = std::vector<std::unique_ptr<SlowPlugin>>;

inline QString slowId(int number)
{
    return QString("slow%1").arg(number);
}

inline void putOnEveryPath(int count)
{
    for (int i = 0; i < count * PathCount; ++i)
        put(Path(i % PathCount), "producer", QString(), 1, i);
}

// Returns when the producers have just stopped: plugins registered and in the middle of receiving,
// inboxes and lists full.
inline SlowPlugins loadBus(CMessageCenter::IdlePolicy policy)
{
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    CMessageCenter::GetInstance()->setIdlePolicy(policy);
    CMessageCenter::GetInstance()->Start();
    SlowPlugins plugins;
    for (int i = 0; i < slowPluginCount; ++i)
        plugins.push_back(std::make_unique<SlowPlugin>(slowId(i)));
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

// What the library offers: loads the bus in it. The plugins remain the caller's, as an opaque
// pointer: that bus uses them until it has been unloaded.
using LoadTheBus = void* (*)(CMessageCenter::IdlePolicy policy);

} // namespace lxstress

#endif
