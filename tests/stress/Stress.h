// What the stress programs share: putting, waiting, and looks at the own process. Inline, because
// the shutdown program and the library that it unloads run with different copies of the bus.
#ifndef LXSTRESS_STRESS_H
#define LXSTRESS_STRESS_H

#include <lxtest/Plugin.h>

#include <QDir>

#include <dlfcn.h>

namespace lxstress {

enum Path { Direct, Net, Quotation, Event, PathCount };

inline void put(Path path, const QString& srcId, const QString& dstId, const QVariant& type,
                const QVariant& payload, bool toNet = false)
{
    if (path == Event) {
        CRegManager::PutEvent(srcId, lxtest::makeEvent(dstId, type, payload));
        return;
    }
    auto* const message = lxtest::message(dstId, type, payload);
    message->SetSendToNetFlag(toNet);
    static constexpr decltype(&CRegManager::Put) puts[] = {CRegManager::Put, CRegManager::PutNetMsg,
                                                           CRegManager::PutQuotationMsg};
    puts[path](srcId, message);
}

// Returns when `condition` holds, and ends the program with a message if it does not in time.
inline void waitFor(const char* what, const std::function<bool()>& condition)
{
    if (!lxtest::waitUntil(condition))
        qFatal("waited in vain for %s", what);
}

inline void waitForRecords()
{
    waitFor("every record and payload to be handled or freed", [] {
        return lxtest::CountedMessage::alive() == 0 && lxtest::CountedEvent::alive() == 0
            && lxtest::CountedPayload::alive() == 0;
    });
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
