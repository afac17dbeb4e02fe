#include <lxbase/RelationTable.h>

#include <lxbase/MessageInterface.h>
#include <lxbase/Owned.h>

#include <utility>

namespace lxbase::detail {

RelationTable::RelationTable(GroupsByBase& groups, QMutex& mutex)
    : m_groups(groups)
    , m_mutex(mutex)
{ }

void RelationTable::change(const QString& from, const QString& to, int type, RelationColor_t color,
                           int oper)
{
    const bool knownColor = color >= 0 && color < RelationGroups::ColorCount;
    if (from.isEmpty() || !knownColor)
        return;
    const QVariant eventType(type);
    if (oper == IMessageInterface::OperAdd) {
        const QMutexLocker locker(&m_mutex);
        RelationGroups*& groups = m_groups[owned(from)][eventType];
        if (!groups)
            groups = new RelationGroups;
        for (QStringList& group : groups->lists)
            group.removeOne(to);
        groups->lists[color].append(owned(to));
    } else if (oper == IMessageInterface::OperRemove) {
        const QMutexLocker locker(&m_mutex);
        if (RelationGroups* const groups = m_groups.value(from).value(eventType))
            groups->lists[color].removeOne(to);
    }
}

void RelationTable::clear()
{
    const GroupsByBase groups = std::exchange(m_groups, {});
    for (const auto& groupsByType : groups)
        qDeleteAll(groupsByType);
}

} // namespace lxbase::detail
