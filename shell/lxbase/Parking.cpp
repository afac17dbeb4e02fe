#include <lxbase/Parking.h>

#include <QThread>

// No wake-up is lost: both the decision to wait and every claim are made under the mutex, and the
// stop flag is set before the claim that follows it.
void idle(QMutex& mutex, CParking* parking, const std::atomic<bool>& stop, int& emptyLooks)
{
    if (!parking) {
        mutex.unlock();
        QThread::usleep(1);
    } else if (emptyLooks++ < CParking::LooksBeforeWait) {
        mutex.unlock();
        QThread::yieldCurrentThread();
    } else {
        const bool waits = !stop;
        parking->m_waits = waits;
        emptyLooks = 0;
        mutex.unlock();
        if (waits)
            parking->m_wakeUps.acquire();
    }
}

void wake(QMutex& mutex, CParking* parking)
{
    if (!parking)
        return;
    mutex.lock();
    const bool waits = parking->claim();
    mutex.unlock();
    if (waits)
        parking->m_wakeUps.release();
}
