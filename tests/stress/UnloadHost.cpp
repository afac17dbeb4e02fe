// The library that the shutdown program unloads: a plugin host that has a bus of its own in it.
#include "BusLoad.h"

#include <utility>

extern "C" Q_DECL_EXPORT void* loadTheBus(CMessageCenter::IdlePolicy policy)
{
    auto plugins = lxstress::loadBus(policy);
    plugins.back()->leave(); // its workers wait for the event loop, which comes too late
    return new lxstress::SlowPlugins(std::move(plugins));
}
