#include <lxbase/LiveWorkers.h>

namespace lxbase::detail {

LiveWorkers& LiveWorkers::instance()
{
    static auto* const all = new LiveWorkers;
    return *all;
}

void LiveWorkers::add(CInboxWorkerBase* worker)
{
    const QMutexLocker locker(&m_mutex);
    m_serials.insert(worker, ++m_last_serial);
}

void LiveWorkers::remove(CInboxWorkerBase* worker)
{
    const QMutexLocker locker(&m_mutex);
    m_serials.remove(worker);
}

} // namespace lxbase::detail
