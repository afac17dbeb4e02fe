// What the stress programs share: putting, waiting, and looks at the own process. Inline, because
// the shutdown program and the library that it unloads run with different copies of the bus.
#ifndef LXSTRESS_STRESS_H
#define LXSTRESS_STRESS_H

#include <lxtest/Plugin.h>
#include <lxtest/Wait.h>

#include <QDir>

#include <functional>

#include <dlfcn.h>

namespace lxstress {

enum Path { Direct, Net, Quotation, Event, PathCount };

inline void put(Path path, const QString& srcId, const QString& dstId, const QVariant& type,
                const QVariant& payload, bool toNet = false)
{
    if (path == Event) {
        CRegManager::PutEvent(srcId, new lxtest::CountedEvent(srcId, dstId, type, payload));
        return;
    }
    auto* const message = new lxtest::CountedMessage(srcId, dstId, type, payload);
    message->SetSendToNetFlag(toNet);
    static constexpr decltype(&CRegManager::Put) puts[] = {CRegManager::Put, CRegManager::PutNetMsg,
                                                           CRegManager::PutQuotationMsg};
    puts[path](srcId, message);
}

// Registers for everything, and subscribes to messages, quotations and events of `type`.
inline void join(const QString& id, IMessageInterface* plugin, const QVariant& type)
{
    CRegManager::Reg(id, plugin, lxtest::All);
    CRegManager::Sub(id, type, 1);
    CRegManager::SubEvent(id, type, 1);
}

// Returns when `condition` holds, and ends the program with a message if it does not.
template<class... Progress>
void waitFor(const char* what, const std::function<bool()>& condition, const Progress&... progress)
{
    if (!lxtest::waitUntil(condition, progress...))
        qFatal("no progress any more while waiting for %s", what);
}

// Returns when every counted record and payload has been handled or freed.
inline void waitForRecords()
{
    const auto alive = [] {
        return lxtest::CountedMessage::alive() + lxtest::CountedEvent::alive()
            + lxtest::CountedPayload::alive();
    };
    waitFor(
        "every record and payload to be handled or freed", [&] { return alive() == 0; }, alive);
}

inline int threadCount()
{
    return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

// Whether this library is still in the process.
inline bool isMapped(const QString& library)
{
    return dlopen(library.toLocal8Bit(), RTLD_LAZY | RTLD_NOLOAD) != nullptr;
}

} // namespace lxstress

#endif
