// SubscriptionTable: who subscribed to what, on the message side or on the event side.
// Internal: not installed.
#ifndef LXBASE_SUBSCRIPTIONTABLE_H
#define LXBASE_SUBSCRIPTIONTABLE_H

#include <QHash>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QVariant>
#include <QVector>

#include <atomic>

namespace lxbase::detail {

// The operations on one side's pair of maps. The maps, their mutexes and the vectors in them are
// members of the center; this is a view that the center makes where it needs one.
//
// A pair may be recorded several times. An entry whose vector has become empty stays: a type's for
// the life of the center, an ID's until removeAll.
//
// One change of the table is one critical section, so that no change is seen half done by another.
//
// Locks: at most both of this table, that of the types by ID first.
class SubscriptionTable
{
public:
    using IdsByType = QMap<QVariant, QVector<QString>*>;
    using TypesById = QMap<QString, QVector<QVariant>*>;
    // What IdsByType gave for an int, to spare its comparisons of variants. Kinds that are mixed
    // have no common order, so what the map finds may change with each new entry: one empties this.
    using IdsByInt = QHash<int, QVector<QString>*>;

    SubscriptionTable(IdsByType& idsByType, IdsByInt& idsByInt, QMutex& idsMutex,
                      TypesById& typesById, QMutex& typesMutex);

    // Sub and SubEvent: OperAdd records the pair once more, OperRemove removes its first record,
    // any other does nothing. A record is not added if `refused` is set: read under the lock, so
    // that a removeAll that comes after it was set leaves none behind.
    // Returns by how many records the table has grown.
    int change(const QString& id, const QVariant& type, int oper,
               const std::atomic<bool>* refused = nullptr);

    // Removes every record of `id`, and returns how many.
    int removeAll(const QString& id);

    // Calls `visit` with the IDs subscribed to `type`, in the order of subscription and with the
    // mutex of the subscribers held. False: the type has no entry.
    template<class Visit>
    bool forEachSubscriber(const QVariant& type, Visit visit) const
    {
        const QMutexLocker locker(&m_ids_mutex);
        const QVector<QString>* const ids = subscribers(type);
        if (!ids)
            return false;
        for (const QString& id : *ids)
            visit(id);
        return true;
    }

    // Frees both maps, at the end of the center.
    void clear();

private:
    // Null: the type has no entry. m_ids_mutex is held.
    QVector<QString>* subscribers(const QVariant& type) const;

    IdsByType& m_ids_by_type;
    IdsByInt& m_ids_by_int;
    QMutex& m_ids_mutex;
    TypesById& m_types_by_id;
    QMutex& m_types_mutex;
};

} // namespace lxbase::detail

#endif
