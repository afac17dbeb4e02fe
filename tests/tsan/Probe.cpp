// Two threads do what ThreadSanitizer has to report: touch one counter without a lock, or with the
// argument "inversion" take two locks in different orders. That it reports nothing else, the other
// tests show.
#include <QMutex>
#include <QThread>

#include <functional>
#include <memory>

int main(int argc, char** argv)
{
    const bool inversion = argc == 2 && qstrcmp(argv[1], "inversion") == 0;
    int counter = 0;
    QMutex mutexes[2];
    const auto body = [&](int number) {
        if (!inversion) {
            ++counter;
            return;
        }
        const QMutexLocker first(&mutexes[number]);
        const QMutexLocker second(&mutexes[1 - number]);
    };
    std::unique_ptr<QThread> threads[2];
    for (int number = 0; number < 2; ++number) {
        threads[number].reset(QThread::create(body, number));
        threads[number]->start();
        if (inversion) // one after the other: together they could lock each other out
            threads[number]->wait();
    }
    for (const auto& thread : threads)
        thread->wait();
    return 0;
}
