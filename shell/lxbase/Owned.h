// owned(): for what the bus keeps longer than the library that gave it may stay loaded.
// Internal: not installed.
#ifndef LXBASE_OWNED_H
#define LXBASE_OWNED_H

#include <QByteArray>
#include <QString>
#include <QVariant>

namespace lxbase::detail {

// The same value, without a pointer into somebody else's memory. A QStringLiteral is data of the
// library that it stands in, and a copy of it shares that data: it would dangle in the tables of
// the bus, and in the name of a worker, once the library has been unloaded. A value on the heap is
// returned as it is.
template<class Text>
Text owned(Text text)
{
    if (text.capacity() == 0 && !text.isNull())
        text.detach();
    return text;
}

inline QVariant owned(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::QString:
        return owned(value.toString());
    case QMetaType::QByteArray:
        return owned(value.toByteArray());
    default:
        return value;
    }
}

} // namespace lxbase::detail

#endif
