#include <lxbase/BusMonitor.h>

#include <lxbase/CallGate.h>
#include <lxbase/DurationRecorder.h>
#include <lxbase/InboxMeter.h>
#include <lxbase/LiveWorkers.h>
#include <lxbase/LostItems.h>
#include <lxbase/LxbaseLog.h>
#include <lxbase/MessageCenter.h>
#include <lxbase/MessageCommonManage.h>
#include <lxbase/StallWatch.h>
#include <lxbase/TraceRecorder.h>

#include <QDateTime>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <utility>

using namespace lxbase::detail;

quint64 DurationHistogram::count() const
{
    quint64 count = 0;
    for (const quint64 ofStep : m_counts)
        count += ofStep;
    return count;
}

qint64 DurationHistogram::quantile(double fraction) const
{
    const auto all = static_cast<double>(count());
    const double rank = std::max(1.0, std::ceil(qBound(0.0, fraction, 1.0) * all));
    double below = 0;
    int step = 0;
    for (const quint64 ofStep : m_counts) {
        below += static_cast<double>(ofStep);
        ++step; // the next one
        if (below >= rank)
            return step < Steps ? std::min(lowerEnd(step) - 1, m_max) : m_max;
    }
    return 0;
}

quint64 DurationHistogram::countUpTo(qint64 limit) const
{
    quint64 count = 0;
    int step = 0;
    for (const quint64 ofStep : m_counts) {
        const qint64 lower = lowerEnd(step++);
        const qint64 upper = step < Steps ? lowerEnd(step) - 1 : m_max;
        if (lower + (upper - lower) / 2 <= limit)
            count += ofStep;
    }
    return count;
}

void DurationHistogram::add(const DurationHistogram& other)
{
    if (other.m_counts.empty())
        return;
    m_counts.resize(Steps);
    std::transform(m_counts.begin(), m_counts.end(), other.m_counts.begin(), m_counts.begin(),
                   std::plus<>());
    m_max = std::max(m_max, other.m_max);
    m_sum += other.m_sum;
}

void DurationHistogram::add(qint64 duration)
{
    duration = std::max<qint64>(duration, 0);
    m_counts.resize(Steps);
    ++m_counts[static_cast<std::size_t>(stepOf(duration))];
    m_max = std::max(m_max, duration);
    m_sum += duration;
}

// Below StepsPerOctave a step is one nanosecond; from there on the highest bit gives the octave and
// the three behind it the step.
int DurationHistogram::stepOf(qint64 duration)
{
    if (duration < StepsPerOctave)
        return static_cast<int>(duration);
    const int octave = 63 - static_cast<int>(qCountLeadingZeroBits(static_cast<quint64>(duration)));
    const int step = (octave - 2) * StepsPerOctave
        + static_cast<int>((duration >> (octave - 3)) % StepsPerOctave);
    return std::min(step, Steps - 1);
}

qint64 DurationHistogram::lowerEnd(int step)
{
    if (step < StepsPerOctave)
        return step;
    const int octave = step / StepsPerOctave + 2;
    return qint64(StepsPerOctave + step % StepsPerOctave) << (octave - 3);
}

DurationHistogram DurationRecorder::read() const
{
    DurationHistogram histogram;
    histogram.m_counts.reserve(DurationHistogram::Steps);
    for (const auto& count : m_counts)
        histogram.m_counts.push_back(count.load(std::memory_order_relaxed));
    histogram.m_max = m_max.load(std::memory_order_relaxed);
    histogram.m_sum = m_sum.load(std::memory_order_relaxed);
    return histogram;
}

QString lostReasonName(LostReason reason)
{
    static const char* const names[LostReasonCount] = {"unknown_destination",
                                                       "no_subscriber",
                                                       "subscriber_not_registered",
                                                       "no_inbox",
                                                       "no_net_plugin",
                                                       "unregistered",
                                                       "no_plugin",
                                                       "not_copied",
                                                       "before_start",
                                                       "at_end",
                                                       "dropped_oldest",
                                                       "refused_newest",
                                                       "too_old"};
    return QLatin1String(names[static_cast<int>(reason)]);
}

QString inboxKindName(InboxKind kind)
{
    switch (kind) {
    case InboxKind::Messages:
        return QStringLiteral("messages");
    case InboxKind::Quotations:
        return QStringLiteral("quotations");
    case InboxKind::Events:
        return QStringLiteral("events");
    }
    return QString();
}

void CBusMonitor::setLevel(StatisticsLevel level)
{
    monitorSwitches.level = level;
}

StatisticsLevel CBusMonitor::level()
{
    return monitorSwitches.level;
}

BusStatistics CBusMonitor::statistics()
{
    BusStatistics statistics;
    statistics.level = level();
    statistics.timeMs = QDateTime::currentMSecsSinceEpoch();
    statistics.lost = LostItems::instance().counts();
    statistics.threads = LiveWorkers::instance().count() + StallWatch::isWatching();
    statistics.inboxes = LiveWorkers::instance().statistics();
    std::sort(statistics.inboxes.begin(), statistics.inboxes.end(),
              [](const InboxStatistics& a, const InboxStatistics& b) {
                  return std::tie(a.plugin, a.kind) < std::tie(b.plugin, b.kind);
              });
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return statistics; // the pool goes soon after the center
    CMessageCenter::GetInstance()->readStatistics(statistics);
    CMessageCommonManage* const pool = CMessageCommonManage::GetInstance();
    const QMutexLocker locker(&pool->m_pool_mutex);
    statistics.poolRecordsMade = pool->m_max_index;
    statistics.poolRecordsOnLoan =
        pool->m_max_index - (pool->m_free_index_list.size() - pool->m_free_front);
    return statistics;
}

quint64 CBusMonitor::waiting(const QString& plugin, InboxKind kind)
{
    return CMessageCenter::GetInstance()->waiting(plugin, kind);
}

QVector<LostItem> CBusMonitor::lostItems(quint64 afterSequence)
{
    return LostItems::instance().after(afterSequence);
}

void CBusMonitor::setLostItemObserver(std::function<void(const LostItem&)> observer)
{
    LostItems::instance().setObserver(std::move(observer));
}

void CBusMonitor::setStallLimit(int ms)
{
    const CallGate::Pass pass(centerGate);
    if (!pass)
        return;
    if (ms < 0) {
        qCWarning(lcLxbase) << "setStallLimit" << ms << ", refused: milliseconds from 0 on";
        return;
    }
    StallWatch::begin(ms);
}

QVector<Stall> CBusMonitor::stalls()
{
    return StallWatch::stalls();
}

void CBusMonitor::startTrace(int mebibytes)
{
    TraceRecorder::start(mebibytes);
}

void CBusMonitor::stopTrace()
{
    TraceRecorder::stop();
}

BusTrace CBusMonitor::takeTrace()
{
    return TraceRecorder::take();
}
