// CParking: where a thread waits for its list to fill, instead of polling it.
// Internal: not installed.
#ifndef LXBASE_PARKING_H
#define LXBASE_PARKING_H

#include <QMutex>
#include <QSemaphore>
#include <QVector>

#include <atomic>
#include <chrono>
#include <utility>

// What the thread that drains a list remembers of how busy it is.
struct ListPace
{
    qint64 found = 0; // elements that it has taken since its last empty look; counted by its loop

    // kept by idle()
    int emptyLooks = 0; // in a row
    int yields = 1;     // how often it gives way to others before the next look
};

// One belongs to one list (an inbox, or a list of the network paths), the mutex of that list and
// the one thread that drains it. It exists only under IdlePolicy::Park; wherever the functions
// below take a null CParking, the list is polled.
class CParking
{
public:
    CParking() = default;
    Q_DISABLE_COPY(CParking)

private:
    friend void idle(QMutex& mutex, CParking* parking, const std::atomic<bool>& stop,
                     ListPace& pace);
    friend void wake(QMutex& mutex, CParking* parking);
    template<class T>
    friend void append(QVector<T>& list, QMutex& mutex, CParking* parking, const T& element);

    // How often the thread looks again, giving way to others in between, before it waits: while
    // messages come in a burst the next one is on its way, and a wait and a wake cost many looks.
    static constexpr int LooksBeforeWait = 20;

    // In a burst it gives way for longer at a time, up to this often. Each look takes the mutex,
    // and one that the producer waits for costs as much as a hundred messages.
    static constexpr int MostYields = 64;

    // But not beyond this time: where other threads want the processor, giving way once can take a
    // slice of it, some milliseconds.
    static constexpr std::chrono::microseconds LongestWay{500};

    // With the list's mutex held: whether the thread waits. Whoever learns so wakes it, once, after
    // the mutex has been released.
    bool claim() { return std::exchange(m_waits, false); }

    bool m_waits = false; // guarded by the mutex of the list
    QSemaphore m_wakeUps; // one for each claim that found the thread waiting
};

// What a thread does after an empty look at its list, the only place where the two idle policies
// differ. Called by the draining thread with `mutex` held, returns with it released: after the
// shortest sleep that the thread offers, or, with a parking, when the list has become non-empty,
// `stop` has been set, or another look is due.
void idle(QMutex& mutex, CParking* parking, const std::atomic<bool>& stop, ListPace& pace);

// Ends the wait of the draining thread; called without `mutex`, after the stop flag has been set.
void wake(QMutex& mutex, CParking* parking);

// Appends to a list and wakes its thread if that is waiting. The notification follows the unlock,
// so that the woken thread finds the mutex free; the caller therefore keeps the parking alive until
// this returns (the registry lock, or the center's call gate, does).
template<class T>
void append(QVector<T>& list, QMutex& mutex, CParking* parking, const T& element)
{
    QMutexLocker locker(&mutex);
    list.append(element);
    const bool waits = parking && parking->claim();
    locker.unlock();
    if (waits)
        parking->m_wakeUps.release();
}

#endif
