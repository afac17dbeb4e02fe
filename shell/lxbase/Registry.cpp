#include <lxbase/Registry.h>

#include <lxbase/LiveWorkers.h>

namespace lxbase::detail {

// A worker runs until it is stopped, so one that does not run has not been started.
bool startWorker(CInboxWorkerBase* worker)
{
    if (!worker)
        return true;
    worker->start(QThread::InheritPriority);
    if (worker->isRunning()) {
        LiveWorkers::instance().add(worker);
        return true;
    }
    qCCritical(lcLxbase) << "no thread to be had for" << worker->objectName()
                         << ", registration refused, ID:" << worker->id();
    return false;
}

QVector<CInboxWorkerBase*> endWorkers(const QVector<CInboxWorkerBase*>& workers,
                                      QDeadlineTimer deadline)
{
    for (CInboxWorkerBase* worker : workers) {
        if (worker)
            worker->setStop(true);
    }
    QVector<CInboxWorkerBase*> running;
    for (CInboxWorkerBase* worker : workers) {
        // a handler that ends the process runs this on its own thread
        if (!worker || worker == QThread::currentThread())
            continue;
        worker->quit();
        if (worker->wait(deadline)) {
            LiveWorkers::instance().remove(worker);
            worker->freeInbox();
            worker->retire();
        } else {
            running.append(worker);
        }
    }
    return running;
}

} // namespace lxbase::detail
