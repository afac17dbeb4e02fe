// A bus with much to do: what the shutdown program, or the library that it unloads, ends in the
// middle of.
#ifndef LXSTRESS_BUSLOAD_H
#define LXSTRESS_BUSLOAD_H

#include "Stress.h"

#include <QLoggingCategory>

#include <cstdlib>
#include <memory>
#include <thread>

namespace lxstress {

// Whether the next handler ends the process.
inline std::atomic<bool> exitInHandler{false};

constexpr int slowPluginCount = 5;
using SlowPlugins = std::vector<std::unique_ptr<lxtest::Plugin>>;

inline void putOnEveryPath(int count)
{
    for (int i = 0; i < count * PathCount; ++i)
        put(Path(i % PathCount), "producer", QString(), 1, i);
}

// Returns when the producers have just stopped: plugins registered and in the middle of receiving,
// inboxes and lists full. The plugins are "slow0", "slow1", ...
inline SlowPlugins loadBus(CMessageCenter::IdlePolicy policy)
{
    QLoggingCategory::setFilterRules("lxbase.debug=false");
    lxtest::center().setIdlePolicy(policy);
    lxtest::center().Start();
    SlowPlugins plugins;
    for (int i = 0; i < slowPluginCount; ++i) {
        const QString id = QString("slow%1").arg(i);
        plugins.push_back(std::make_unique<lxtest::Plugin>(id, lxtest::All));
        plugins.back()->onCall([id](const lxtest::Call& call) {
            if (exitInHandler.exchange(false))
                std::exit(0);
            QThread::msleep(2); // slow against the putting
            if (call.kind == lxtest::M)
                put(Direct, id, QString(), 1, call.data); // never ends by itself
        });
        plugins.back()->subscribe(1);
        plugins.back()->subscribeEvent(1);
    }
    lxtest::onThreads(3, [](int) { putOnEveryPath(5000); }).clear();
    for (const auto& plugin : plugins)
        waitFor("a plugin to receive", [&] { return plugin->count() > 0; });
    return plugins;
}

// What the library offers: loads the bus in it. The plugins remain the caller's, as an opaque
// pointer: that bus uses them until it has been unloaded.
using LoadTheBus = void* (*)(CMessageCenter::IdlePolicy policy);

} // namespace lxstress

#endif
