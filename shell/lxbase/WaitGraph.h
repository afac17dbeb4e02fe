// WaitGraph: which plugins' handlers wait in UnReg for which other plugins.
// Internal: not installed.
#ifndef LXBASE_WAITGRAPH_H
#define LXBASE_WAITGRAPH_H

#include <QMultiHash>
#include <QMutex>
#include <QString>

namespace lxbase::detail {

// UnReg waits for the handlers of the plugin that it names. A handler that calls it for a plugin
// that waits for this one, over however many others, would never come back; here it is found out
// before it begins to wait. Any thread.
class WaitGraph
{
public:
    // Notes that a handler of `waiter` is about to wait for `target`. False, and nothing is noted:
    // `target` is the waiter itself or waits for it.
    bool begin(const QString& waiter, const QString& target);

    // The wait is over.
    void end(const QString& waiter, const QString& target);

private:
    bool waitsFor(const QString& waiter, const QString& target) const;

    QMutex m_mutex;
    QMultiHash<QString, QString> m_targets; // by waiter; guarded by m_mutex
};

} // namespace lxbase::detail

#endif
