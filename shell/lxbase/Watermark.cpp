#include <lxbase/Watermark.h>

#include <utility>

namespace lxbase::detail {

Watermark::Watermark(const QString& plugin, IMessageInterface::ThreadType kind,
                     const InboxPolicy& policy)
    : m_plugin(plugin)
    , m_kind(kind)
    , m_high(policy.highWatermark)
    , m_low(policy.lowWatermark)
    , m_observer(policy.observer)
{ }

bool Watermark::isCrossedAtEnd(int waiting)
{
    const bool crossed = m_above;
    if (crossed)
        cross(waiting);
    return crossed;
}

void Watermark::tell()
{
    QMutexLocker locker(&m_mutex);
    if (std::exchange(m_telling, true))
        return;
    while (!m_untold.isEmpty()) {
        const InboxCrossing crossing = m_untold.dequeue();
        locker.unlock();
        m_observer(crossing);
        locker.relock();
    }
    m_telling = false;
}

void Watermark::cross(int waiting)
{
    const QMutexLocker locker(&m_mutex);
    m_untold.enqueue({m_plugin, m_kind, !m_above, waiting});
    m_above = !m_above;
}

} // namespace lxbase::detail
