// The four ways to put, told apart by a value. Inline, because the shutdown program and the library
// that it unloads run with different copies of the bus.
#ifndef LXSTRESS_TRAFFIC_H
#define LXSTRESS_TRAFFIC_H

#include <lxtest/Plugin.h>

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

} // namespace lxstress

#endif
