#include <lxbase/MessageCommonManage.h>

#include <lxbase/LxbaseLog.h>

#include <lxmsg/MessageCommon.h>

#include <memory>
#include <new>
#include <utility>

namespace {

// Keeps the records reachable after the pool, for whoever still holds one; never destroyed.
alignas(QList<CMessageCommon*>)
    [[gnu::used]] char recordsThatOutliveThePool[sizeof(QList<CMessageCommon*>)];

} // namespace

CMessageCommonManage::CMessageCommonManage()
    : LxThread(nullptr)
{
    lcLxbase(); // made before the pool, so that it is there until the pool is gone
}

CMessageCommonManage::~CMessageCommonManage()
{
    wait();
    new (recordsThatOutliveThePool) QList<CMessageCommon*>(std::move(m_msg_list));
}

CMessageCommon* CMessageCommonManage::getMessageCommon()
{
    const QMutexLocker locker(&m_pool_mutex);
    if (m_free_front == m_free_index_list.size()) {
        m_free_index_list.clear();
        m_free_front = 0;
        allocMsg();
        return nullptr;
    }
    const int index = m_free_index_list.at(m_free_front++);
    return index < 0 ? nullptr : m_msg_list.at(index);
}

void CMessageCommonManage::freeMessageCommon(CMessageCommon* msg)
{
    if (!msg)
        return;
    const int index = msg->GetIndex();
    QMutexLocker locker(&m_pool_mutex);
    const int maxIndex = m_max_index;
    if (index < maxIndex) {
        // once the front half of the vector has been handed out, close the gap
        if (m_free_front > BatchSize && m_free_front > m_free_index_list.size() / 2) {
            m_free_index_list.remove(0, m_free_front);
            m_free_front = 0;
        }
        m_free_index_list.append(index);
        return;
    }
    locker.unlock();
    qCCritical(lcLxbase) << "!!!!!! Error index:" << index << ",MaxIndex:" << maxIndex;
    delete msg;
}

void CMessageCommonManage::run()
{
    const QMutexLocker locker(&m_pool_mutex);
    allocMsg();
}

// One batch; m_pool_mutex is held. Room is made first, so that in the loop only the making of a
// record can fail, and each record is complete in both lists before the next is made.
void CMessageCommonManage::allocMsg()
{
    m_msg_list.reserve(m_msg_list.size() + BatchSize);
    m_free_index_list.reserve(m_free_index_list.size() + BatchSize);
    for (int k = 0; k < BatchSize; ++k) {
        auto record = std::make_unique<CMessageCommon>();
        record->SetIndex(m_max_index);
        m_msg_list.append(record.release());
        m_free_index_list.append(m_max_index);
        ++m_max_index;
    }
}
