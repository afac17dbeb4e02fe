// Wire: between the payloads of the bus and what travels over the link.
#ifndef LXCLIENT_LINK_WIRE_H
#define LXCLIENT_LINK_WIRE_H

#include <lxclient/Error.h>
#include <lxclient/Protocol.h>

#include <Wire.pb.h>

namespace lxlink {

constexpr quint32 Major = 1; // another one is refused
constexpr quint32 Minor = 0; // adds fields, which older readers pass over

inline quint32 majorOf(const Quote& quote)
{
    return quote.major();
}
template<class Message>
quint32 majorOf(const Message& message)
{
    return message.version().major();
}

// Why bytes that were received are not to be used, if they are not.
template<class Message>
lxclient::Error read(const char* data, int size, Message& message)
{
    if (!message.ParseFromArray(data, size))
        return lxclient::Error(QStringLiteral("cannot be read: %1 bytes of garbage").arg(size));
    if (majorOf(message) != Major) {
        return lxclient::Error(QStringLiteral("has version %1, this program reads version %2")
                                   .arg(majorOf(message))
                                   .arg(Major));
    }
    return {};
}

template<class Message>
void stamp(Message& message)
{
    message.mutable_version()->set_major(Major);
    message.mutable_version()->set_minor(Minor);
}

lxclient::Decimal decimalOf(const Price& price);
void set(Price& price, const lxclient::Decimal& decimal);

lxclient::Order orderOf(const Order& order);
lxclient::Execution executionOf(const Answer& answer);

// Whether it makes sense: what a garbled or hostile message may say does not get further.
lxclient::Error check(const Order& order);
lxclient::Error check(const Quote& quote);

} // namespace lxlink

#endif
