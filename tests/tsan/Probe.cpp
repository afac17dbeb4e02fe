// Two threads do what ThreadSanitizer has to report: touch one counter without a lock, or with the
// argument "inversion" take two locks in different orders. That it reports nothing else, the other
// tests show.
#include <QMutex>
#include <QThread>

#include <functional>
#include <memory>

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

void lockBoth(QMutex& first, QMutex& second)
{
    const QMutexLocker firstLocker(&first);
    const QMutexLocker secondLocker(&second);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && qstrcmp(argv[1], "inversion") == 0) {
        startThread([] { lockBoth(mutex, otherMutex); })->wait();
        startThread([] { lockBoth(otherMutex, mutex); })->wait();
    } else {
        const auto other = startThread([] { ++counter; });
        startThread([] { ++counter; })->wait();
        other->wait();
    }
    return 0;
}
