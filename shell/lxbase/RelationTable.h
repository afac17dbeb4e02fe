// RelationTable: which plugins get the broadcast events of which others without a subscription.
// Internal: not installed.
#ifndef LXBASE_RELATIONTABLE_H
#define LXBASE_RELATIONTABLE_H

#include <lxbase/MessageCenterEvent.h>

#include <QMap>
#include <QMutex>
#include <QString>
#include <QVariant>

namespace lxbase::detail {

// The operations on the relation map. Map and mutex are members of the center; this is a view that
// the center makes where it needs one. Nothing is ever removed from the map: an empty list stays.
class RelationTable
{
public:
    using GroupsByBase = QMap<QString, QMap<QVariant, RelationGroups*>>;

    RelationTable(GroupsByBase& groups, QMutex& mutex);

    // See IMessageInterface::setRelation. Returns by how many the groups with a member have grown.
    int change(const QString& from, const QString& to, int type, RelationColor_t color, int oper);

    // Calls `visit` with the other members of each group that contains `sender`, colour by colour,
    // among the groups of its base ID and `type`; with the mutex held.
    template<class Visit>
    void forEachRelated(const QString& sender, const QVariant& type, Visit visit) const
    {
        const QString base = baseId(sender);
        if (base.isEmpty())
            return;
        const QMutexLocker locker(&m_mutex);
        const auto groupsByType = m_groups.constFind(base);
        if (groupsByType == m_groups.constEnd())
            return;
        const RelationGroups* const groups = groupsByType->value(type);
        if (!groups)
            return;
        for (const QStringList& group : groups->lists) {
            if (!group.contains(sender))
                continue;
            for (const QString& member : group) {
                if (member != sender)
                    visit(member);
            }
        }
    }

    // Frees the groups, at the end of the center.
    void clear();

private:
    // The part before the first "#": the whole ID if there is none, nothing if the ID begins with
    // one.
    static QString baseId(const QString& id) { return id.left(id.indexOf(QLatin1Char('#'))); }

    GroupsByBase& m_groups;
    QMutex& m_mutex;
};

} // namespace lxbase::detail

#endif
