#include <lxbase/Parking.h>

#include <QThread>

void idle(QMutex& mutex, Parking* parking, const std::atomic<bool>& stop)
{
    if (!parking) {
        mutex.unlock();
        QThread::usleep(1);
        return;
    }
    parking->m_parked = true;
    while (parking->m_parked && !stop)
        parking->m_condition.wait(mutex);
    parking->m_parked = false;
    mutex.unlock();
}

void wake(QMutex& mutex, Parking* parking)
{
    if (!parking)
        return;
    mutex.lock();
    const bool parked = parking->claim();
    mutex.unlock();
    if (parked)
        parking->m_condition.notify_one();
}
