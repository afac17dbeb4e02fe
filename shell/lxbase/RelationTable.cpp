#include <lxbase/RelationTable.h>

#include <lxbase/MessageInterface.h>
#include <lxbase/Owned.h>

#include <algorithm>
#include <iterator>
#include <utility>

namespace lxbase::detail {

namespace {

int membered(const RelationGroups& groups)
{
    return static_cast<int>(std::count_if(std::begin(groups.lists), std::end(groups.lists),
                                          [](const QStringList& ids) { return !ids.isEmpty(); }));
}

} // namespace

RelationTable::RelationTable(GroupsByBase& groups, QMutex& mutex)
    : m_groups(groups)
    , m_mutex(mutex)
{ }

int RelationTable::change(const QString& from, const QString& to, int type, RelationColor_t color,
                          int oper)
{
    const bool knownColor = color >= 0 && color < RelationGroups::ColorCount;
    if (from.isEmpty() || !knownColor)
        return 0;
    const QVariant eventType(type);
    if (oper == IMessageInterface::OperAdd) {
        const QMutexLocker locker(&m_mutex);
        RelationGroups*& groups = m_groups[owned(from)][eventType];
        if (!groups)
            groups = new RelationGroups;
        const int before = membered(*groups);
        for (QStringList& group : groups->lists)
            group.removeOne(to);
        groups->lists[color].append(owned(to));
        return membered(*groups) - before;
    }
    if (oper == IMessageInterface::OperRemove) {
        const QMutexLocker locker(&m_mutex);
        if (RelationGroups* const groups = m_groups.value(from).value(eventType)) {
            const int before = membered(*groups);
            groups->lists[color].removeOne(to);
            return membered(*groups) - before;
        }
    }
    return 0;
}

void RelationTable::clear()
{
    const GroupsByBase groups = std::exchange(m_groups, {});
    for (const auto& groupsByType : groups)
        qDeleteAll(groupsByType);
}

} // namespace lxbase::detail
