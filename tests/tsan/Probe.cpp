// Shows what ThreadSanitizer reports in this build and what it does not. Two threads touch one
// counter in the manner that the argument names; only the first two are wrong.
#include <QCoreApplication>
#include <QMutex>
#include <QSemaphore>
#include <QThread>
#include <QTimer>

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>

namespace {

int counter = 0;
QMutex mutex;
QMutex otherMutex;

using ThreadPtr = std::unique_ptr<QThread>;

ThreadPtr startThread(std::function<void()> body)
{
    ThreadPtr thread(QThread::create(std::move(body)));
    thread->start();
    return thread;
}

void bothAtOnce(void (*body)())
{
    const ThreadPtr a = startThread(body);
    const ThreadPtr b = startThread(body);
    a->wait();
    b->wait();
}

void race()
{
    bothAtOnce([] { ++counter; });
}

void inversion()
{
    startThread([] {
        const QMutexLocker first(&mutex);
        const QMutexLocker second(&otherMutex);
    })->wait();
    startThread([] {
        const QMutexLocker first(&otherMutex);
        const QMutexLocker second(&mutex);
    })->wait();
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
    const ThreadPtr thread = startThread([&] {
        ++counter;
        done.release();
    });
    done.acquire();
    ++counter;
    thread->wait();
}

void queuedCall()
{
    const ThreadPtr thread = startThread([] {
        ++counter;
        QMetaObject::invokeMethod(qApp, [] {
            ++counter;
            QCoreApplication::quit();
        });
    });
    QCoreApplication::exec();
    thread->wait();
}

const struct
{
    const char* name;
    void (*run)();
} manners[] = {
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
    for (const auto& manner : manners) {
        if (argc == 2 && std::strcmp(argv[1], manner.name) == 0) {
            manner.run();
            std::puts("done");
            return 0;
        }
    }
    std::fputs("usage: tsan_probe MANNER, one of:", stderr);
    for (const auto& manner : manners)
        std::fprintf(stderr, " %s", manner.name);
    std::fputs("\n", stderr);
    return 2;
}
