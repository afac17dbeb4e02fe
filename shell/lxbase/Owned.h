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

// A type for a list that nobody can have emptied before a library is unloaded: texts and numbers as
// they are, an enumerator as its number. A value of any other class, which only the code of its
// library can copy and destroy, becomes the name of the class.
inline QVariant listable(const QVariant& type)
{
    const int id = type.userType();
    if (id == QMetaType::QString || id == QMetaType::QByteArray)
        return owned(type);
    const QMetaType::TypeFlags flags = QMetaType::typeFlags(id);
    if (flags & QMetaType::IsEnumeration)
        return type.toInt();
    if (id < QMetaType::User && !(flags & QMetaType::NeedsDestruction))
        return type;
    return QString::fromLatin1(type.typeName());
}

} // namespace lxbase::detail

#endif
