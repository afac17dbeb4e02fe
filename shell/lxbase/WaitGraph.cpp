#include <lxbase/WaitGraph.h>

#include <algorithm>

namespace lxbase::detail {

bool WaitGraph::begin(const QString& waiter, const QString& target)
{
    const QMutexLocker locker(&m_mutex);
    if (waitsFor(target, waiter))
        return false;
    m_targets.insert(waiter, target);
    return true;
}

void WaitGraph::end(const QString& waiter, const QString& target)
{
    const QMutexLocker locker(&m_mutex);
    m_targets.erase(m_targets.find(waiter, target));
}

// The graph has no cycle, for none is let in: this ends.
bool WaitGraph::waitsFor(const QString& waiter, const QString& target) const
{
    if (waiter == target)
        return true;
    const QStringList next = m_targets.values(waiter);
    return std::any_of(next.begin(), next.end(),
                       [&](const QString& id) { return waitsFor(id, target); });
}

} // namespace lxbase::detail
