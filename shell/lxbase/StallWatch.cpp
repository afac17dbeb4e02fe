#include <lxbase/StallWatch.h>

#include <lxbase/InboxMeter.h>
#include <lxbase/LiveWorkers.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/TraceRecorder.h>

#include <QElapsedTimer>

#include <memory>
#include <utility>

namespace lxbase::detail {

namespace {

// The one that runs. Never destroyed, as whoever asks may ask at any time.
struct Present
{
    QMutex mutex;
    std::shared_ptr<StallWatch> watch; // guarded by mutex
};

Present& present()
{
    static auto* const one = new Present;
    return *one;
}

std::shared_ptr<StallWatch> exchangePresent(std::shared_ptr<StallWatch> next)
{
    const QMutexLocker locker(&present().mutex);
    monitorSwitches.watchesHandlers = next != nullptr;
    return std::exchange(present().watch, std::move(next));
}

} // namespace

void StallWatch::begin(int ms)
{
    end(QDeadlineTimer::Forever);
    if (ms == 0)
        return;
    const std::shared_ptr<StallWatch> watch(new StallWatch(ms));
    watch->setObjectName(QStringLiteral("BusMonitor_Thread"));
    watch->start(QThread::InheritPriority);
    if (!watch->isRunning()) {
        qCCritical(lcLxbase) << "no thread to be had for" << watch->objectName()
                             << ", setStallLimit refused";
        return;
    }
    if (const auto other = exchangePresent(watch)) { // of a call at the same time
        other->m_stop.release();
        other->wait();
    }
}

bool StallWatch::end(QDeadlineTimer deadline)
{
    const auto watch = exchangePresent(nullptr);
    if (!watch)
        return true;
    watch->m_stop.release();
    if (watch->wait(deadline))
        return true;
    static auto* const kept = new QVector<std::shared_ptr<StallWatch>>;
    kept->append(watch); // it runs on, and uses itself
    return false;
}

bool StallWatch::isWatching()
{
    const QMutexLocker locker(&present().mutex);
    return present().watch != nullptr;
}

QVector<Stall> StallWatch::stalls()
{
    QMutexLocker locker(&present().mutex);
    const auto watch = present().watch;
    locker.unlock();
    if (!watch)
        return {};
    const QMutexLocker stallsLocker(&watch->m_mutex);
    return watch->m_stalls;
}

void StallWatch::run()
{
    QElapsedTimer timer;
    timer.start();
    qint64 last = 0;
    qint64 now = 0; // this thread's own clock
    while (!m_stop.tryAcquire(1, TickMs)) {
        const qint64 passed = timer.elapsed() - last;
        last += passed;
        now += qMin<qint64>(passed, TickMs + TickMs / 2);
        tick(now);
    }
}

// Records are written when no lock is held.
void StallWatch::tick(qint64 nowMs)
{
    QMap<quint64, Watched> seen;
    QStringList records;
    LiveWorkers::instance().forEach([&](CInboxWorkerBase& worker, quint64 serial) {
        Watched& watched = seen[serial] = m_watched.take(serial);
        look(worker, watched, nowMs, records);
    });
    for (const Watched& gone : qAsConst(m_watched)) {
        if (gone.reported)
            records << QStringLiteral("stall over, the handler of \"%1\" has returned")
                           .arg(gone.stall.plugin);
    }
    m_watched.swap(seen);
    for (const QString& record : qAsConst(records))
        qCWarning(lcLxbase).noquote() << record;

    QVector<Stall> stalls;
    for (const Watched& watched : qAsConst(m_watched)) {
        if (watched.sinceMs >= 0 && !watched.stall.plugin.isEmpty())
            stalls << watched.stall;
    }
    const QMutexLocker locker(&m_mutex);
    m_stalls.swap(stalls);
}

void StallWatch::look(CInboxWorkerBase& worker, Watched& watched, qint64 nowMs,
                      QStringList& records)
{
    InboxMeter* const meter = worker.meter();
    if (!meter)
        return;
    const bool inHand = meter->isInHand(); // read first: the count is then of this call or a later
    const quint64 calls = meter->calls();
    if (watched.sinceMs >= 0 && (!inHand || calls != watched.calls)) {
        if (watched.reported) {
            records << QStringLiteral(
                           "stall over, the handler of \"%1\" for %2 returned after %3 ms")
                           .arg(watched.stall.plugin, inboxKindName(worker.kind()))
                           .arg(nowMs - watched.sinceMs);
        }
        watched = {0, -1, 0, false, {}, watched.reportDepth, watched.deepMs};
    }
    if (inHand && watched.sinceMs < 0) {
        watched.calls = calls;
        watched.sinceMs = nowMs;
        watched.reportAtMs = m_limit_ms;
    }

    const auto waiting = static_cast<quint64>(worker.waiting());
    const qint64 forMs = watched.sinceMs < 0 ? 0 : nowMs - watched.sinceMs;
    if (forMs >= m_limit_ms) {
        Stall& stall = watched.stall;
        if (stall.plugin.isEmpty()) {
            if (!meter->copyInHand(stall.sender, stall.type) || meter->calls() != calls)
                return; // it has just returned
            stall.plugin = worker.id();
            stall.kind = worker.kind();
            stall.thread = worker.objectName();
            stall.threadId = worker.threadNumber();
        }
        stall.forMs = forMs;
        stall.waiting = waiting;
        if (forMs >= watched.reportAtMs) {
            while (watched.reportAtMs <= forMs)
                watched.reportAtMs *= 2;
            if (mayReport(stall.plugin, nowMs)) {
                watched.reported = true;
                QString record;
                QDebug(&record) << "stall, the handler of" << stall.plugin << "for"
                                << qPrintable(inboxKindName(stall.kind)) << "has not returned for"
                                << forMs << "ms, type:" << stall.type << ", sender:" << stall.sender
                                << ", waiting behind it:" << waiting << ", thread:" << stall.thread
                                << stall.threadId;
                records << record;
                trace(stall);
            }
        }
    }

    // An inbox that fills and empties in turns is no news each time, so what has been said of it
    // holds until it has been shallow for a while.
    if (waiting > watched.reportDepth && mayReport(worker.id(), nowMs)) {
        while (waiting > watched.reportDepth)
            watched.reportDepth *= 2;
        records << QStringLiteral("the inbox of \"%1\" for %2 grows: %3 items wait")
                       .arg(worker.id(), inboxKindName(worker.kind()))
                       .arg(waiting);
    }
    if (waiting >= FirstDepth / 2)
        watched.deepMs = nowMs;
    else if (nowMs - watched.deepMs >= MinuteMs)
        watched.reportDepth = FirstDepth;
}

void StallWatch::trace(const Stall& stall)
{
    if (!isTracing())
        return;
    TraceEntry entry{TraceKind::Stall};
    entry.detail = static_cast<quint8>(stall.kind);
    entry.number = static_cast<quint64>(stall.forMs);
    entry.type = &stall.type;
    entry.source = &stall.sender;
    entry.destination = &stall.plugin;
    TraceRecorder::record(entry);
}

bool StallWatch::mayReport(const QString& plugin, qint64 nowMs)
{
    QVector<qint64>& times = m_report_ms[plugin];
    while (!times.isEmpty() && times.first() <= nowMs - MinuteMs)
        times.removeFirst();
    if (times.size() >= MaxReportsPerMinute)
        return false;
    times.append(nowMs);
    return true;
}

} // namespace lxbase::detail
