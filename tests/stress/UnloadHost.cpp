// The library that the shutdown program unloads: a plugin host that has a bus of its own in it.
#include "UnloadHost.h"

#include "BusLoad.h"

#include <QLoggingCategory>

extern "C" Q_DECL_EXPORT void* loadTheBus(bool park)
{
    auto plugins = lxstress::loadBus(park ? CMessageCenter::IdlePolicy::Park
                                          : CMessageCenter::IdlePolicy::Poll);
    // One goes in time; its workers wait for an event loop that does not come any more.
    plugins.back()->UnReg(plugins.back()->id());
    return new lxstress::SlowPlugins(std::move(plugins));
}
