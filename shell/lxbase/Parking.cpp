#include <lxbase/Parking.h>

#include <QThread>

#include <algorithm>
#include <utility>

using Clock = std::chrono::steady_clock;

// No wake-up is lost: both the decision to wait and every claim are made under the mutex, and the
// stop flag is set before the claim that follows it.
//
// In a burst, while at least one element comes for each time that the thread has given way, it
// gives way twice as often before the next look; else once.
void idle(QMutex& mutex, CParking* parking, const std::atomic<bool>& stop, ListPace& pace)
{
    if (!parking) {
        mutex.unlock();
        QThread::usleep(1);
        return;
    }
    const qint64 found = std::exchange(pace.found, 0);
    pace.emptyLooks = found > 0 ? 0 : pace.emptyLooks + 1;
    pace.yields = found >= pace.yields ? std::min(2 * pace.yields, CParking::MostYields) : 1;
    if (pace.emptyLooks < CParking::LooksBeforeWait) {
        mutex.unlock();
        const auto end = Clock::now() + CParking::LongestWay;
        for (int k = 0; k < pace.yields && Clock::now() < end; ++k)
            QThread::yieldCurrentThread();
    } else {
        const bool waits = !stop;
        parking->m_waits = waits;
        pace.emptyLooks = 0;
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
