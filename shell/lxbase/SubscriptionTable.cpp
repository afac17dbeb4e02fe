#include <lxbase/SubscriptionTable.h>

#include <lxbase/Owned.h>

#include <utility>

namespace {

template<class Map, class Key, class Value>
void add(Map& map, QMutex& mutex, const Key& key, const Value& value)
{
    const QMutexLocker locker(&mutex);
    auto*& values = map[key];
    if (!values)
        values = new QVector<Value>;
    values->append(value);
}

template<class Map, class Key, class Value>
void removeFirst(Map& map, QMutex& mutex, const Key& key, const Value& value)
{
    const QMutexLocker locker(&mutex);
    if (auto* values = map.value(key))
        values->removeOne(value);
}

} // namespace

CSubscriptionTable::CSubscriptionTable(IdsByType& idsByType, IdsByInt& idsByInt, QMutex& idsMutex,
                                       TypesById& typesById, QMutex& typesMutex)
    : m_ids_by_type(idsByType)
    , m_ids_by_int(idsByInt)
    , m_ids_mutex(idsMutex)
    , m_types_by_id(typesById)
    , m_types_mutex(typesMutex)
{ }

void CSubscriptionTable::change(const QString& id, const QVariant& type, int oper)
{
    if (oper == 1) {
        const QString ownedId = owned(id);
        const QVariant ownedType = owned(type);
        add(m_types_by_id, m_types_mutex, ownedId, ownedType);
        add(m_ids_by_type, m_ids_mutex, ownedType, ownedId);
    } else if (oper == 2) {
        removeFirst(m_types_by_id, m_types_mutex, id, type);
        removeFirst(m_ids_by_type, m_ids_mutex, type, id);
    }
}

// One pass per recorded type takes one record of `id` away, so a type that was subscribed twice is
// visited twice.
void CSubscriptionTable::removeAll(const QString& id)
{
    const QMutexLocker locker(&m_types_mutex);
    const auto types = m_types_by_id.find(id);
    if (types == m_types_by_id.end())
        return;
    for (const QVariant& type : qAsConst(**types))
        removeFirst(m_ids_by_type, m_ids_mutex, type, id);
    delete *types;
    m_types_by_id.erase(types);
}

QVector<QString>* CSubscriptionTable::subscribers(const QVariant& type) const
{
    if (type.userType() != QMetaType::Int)
        return m_ids_by_type.value(type);
    const int number = type.toInt();
    if (auto* const known = m_ids_by_int.value(number))
        return known;
    auto* const ids = m_ids_by_type.value(type);
    if (ids)
        m_ids_by_int.insert(number, ids);
    return ids;
}

void CSubscriptionTable::clear()
{
    m_ids_by_int.clear();
    qDeleteAll(std::exchange(m_ids_by_type, {}));
    qDeleteAll(std::exchange(m_types_by_id, {}));
}
