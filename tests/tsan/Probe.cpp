// Shows what ThreadSanitizer reports in this build and what it does not. Two threads touch one
// counter in the manner that the argument names; only the first two are wrong.
#include <QCoreApplication>
#include <QMutex>
#include <QSemaphore>
#include <QThread>

#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace {

int counter = 0;
QMutex mutex;
QMutex otherMutex;

std::unique_ptr<QThread> startThread(std::function<void()> body)
{
    std::unique_ptr<QThread> thread(QThread::create(std::move(body)));
    thread->start();
    return thread;
}

void bothAtOnce(void (*body)())
{
    const auto other = startThread(body);
    startThread(body)->wait();
    other->wait();
}

void lockBoth(QMutex& first, QMutex& second)
{
    const QMutexLocker firstLocker(&first);
    const QMutexLocker secondLocker(&second);
}

void race()
{
    bothAtOnce([] { ++counter; });
}

void inversion()
{
    startThread([] { lockBoth(mutex, otherMutex); })->wait();
    startThread([] { lockBoth(otherMutex, mutex); })->wait();
}

void lock()
{
    bothAtOnce([] {
        const QMutexLocker locker(&mutex);
        ++counter;
    });
}

void tryLock()
{
    bothAtOnce([] {
        while (!mutex.tryLock())
            QThread::yieldCurrentThread();
        ++counter;
        mutex.unlock();
    });
}

void waitForThread()
{
    startThread([] { ++counter; })->wait();
    ++counter;
}

void semaphore()
{
    QSemaphore done;
    const auto thread = startThread([&] {
        ++counter;
        done.release();
    });
    done.acquire();
    ++counter;
    thread->wait();
}

void queuedCall()
{
    const auto thread = startThread([] {
        ++counter;
        QMetaObject::invokeMethod(qApp, [] {
            ++counter;
            QCoreApplication::quit();
        });
    });
    QCoreApplication::exec();
    thread->wait();
}

const std::map<std::string, void (*)()> manners{
    {"race", race},
    {"inversion", inversion},
    {"lock", lock},
    {"tryLock", tryLock},
    {"waitForThread", waitForThread},
    {"semaphore", semaphore},
    {"queuedCall", queuedCall},
};

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    manners.at(argv[argc - 1])(); // an unknown one throws
    std::puts("done");
    return 0;
}
