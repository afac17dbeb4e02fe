#include <lxbase/SubscriptionTable.h>

#include <lxbase/MessageInterface.h>
#include <lxbase/Owned.h>

#include <utility>

namespace lxbase::detail {

namespace {

// True: the key is new.
template<class Map, class Key, class Value>
bool add(Map& map, const Key& key, const Value& value)
{
    auto*& values = map[key];
    const bool isNew = !values;
    if (isNew)
        values = new QVector<Value>;
    values->append(value);
    return isNew;
}

// True: there was one.
template<class Map, class Key, class Value>
bool removeFirst(Map& map, const Key& key, const Value& value)
{
    auto* const values = map.value(key);
    return values && values->removeOne(value);
}

} // namespace

SubscriptionTable::SubscriptionTable(IdsByType& idsByType, IdsByInt& idsByInt, QMutex& idsMutex,
                                     TypesById& typesById, QMutex& typesMutex)
    : m_ids_by_type(idsByType)
    , m_ids_by_int(idsByInt)
    , m_ids_mutex(idsMutex)
    , m_types_by_id(typesById)
    , m_types_mutex(typesMutex)
{ }

int SubscriptionTable::change(const QString& id, const QVariant& type, int oper,
                              const std::atomic<bool>* refused)
{
    if (oper == IMessageInterface::OperAdd) {
        const QString ownedId = owned(id);
        const QVariant ownedType = owned(type);
        const QMutexLocker typesLocker(&m_types_mutex);
        if (refused && *refused)
            return 0;
        add(m_types_by_id, ownedId, ownedType);
        const QMutexLocker idsLocker(&m_ids_mutex);
        if (add(m_ids_by_type, ownedType, ownedId))
            m_ids_by_int.clear();
        return 1;
    }
    if (oper == IMessageInterface::OperRemove) {
        const QMutexLocker typesLocker(&m_types_mutex);
        const bool removed = removeFirst(m_types_by_id, id, type);
        const QMutexLocker idsLocker(&m_ids_mutex);
        removeFirst(m_ids_by_type, type, id);
        return removed ? -1 : 0;
    }
    return 0;
}

// Each visit of a type takes one record of `id` away, so a type that was subscribed twice is
// visited twice. Puts get their turn between two types.
int SubscriptionTable::removeAll(const QString& id)
{
    const QMutexLocker typesLocker(&m_types_mutex);
    const auto types = m_types_by_id.find(id);
    if (types == m_types_by_id.end())
        return 0;
    const int count = (*types)->size();
    for (const QVariant& type : qAsConst(**types)) {
        const QMutexLocker idsLocker(&m_ids_mutex);
        removeFirst(m_ids_by_type, type, id);
    }
    delete *types;
    m_types_by_id.erase(types);
    return count;
}

QVector<QString>* SubscriptionTable::subscribers(const QVariant& type) const
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

void SubscriptionTable::clear()
{
    m_ids_by_int.clear();
    qDeleteAll(std::exchange(m_ids_by_type, {}));
    qDeleteAll(std::exchange(m_types_by_id, {}));
}

} // namespace lxbase::detail
