// Traffic: the four ways to put and the three ways to receive, told apart by a value. Inline,
// because the shutdown program and the library that it unloads run with different copies of the
// bus.
#ifndef LXSTRESS_TRAFFIC_H
#define LXSTRESS_TRAFFIC_H

#include <lxbase/MessageInterface.h>

#include <lxtest/Counted.h>

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

class Receiver : public IMessageInterface
{
public:
    // Registers for everything, and subscribes to messages, quotations and events of `type`.
    void join(const QString& id, const QVariant& type)
    {
        Reg(id, this, MessageThread | QuotationThread | EventThread);
        Sub(id, type, 1);
        SubEvent(id, type, 1);
    }

    void RecvMsg(QString srcId, QVariant type, QVariant data) final
    {
        receive(Direct, srcId, type, data);
    }
    void RecvEvent(QString srcId, QVariant type, QVariant data) final
    {
        receive(Event, srcId, type, data);
    }
    void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) final
    {
        receive(Quotation, srcId, type, data);
    }

protected:
    // Every handler; the path is Direct for what came as a message, over the net path too.
    virtual void receive(Path path, const QString& srcId, const QVariant& type,
                         const QVariant& data) = 0;
};

} // namespace lxstress

#endif
