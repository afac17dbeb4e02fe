#include "WaitReporter.h"

#include "BusTables.h"
#include "ProgressLine.h"

WaitReporter::WaitReporter(int limitMs)
    : m_limit(limitMs)
{
    if (limitMs > 0)
        m_thread = std::thread([this] { watch(); });
}

WaitReporter::~WaitReporter()
{
    if (!m_thread.joinable())
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_stop = true;
    }
    m_changed.notify_one();
    m_thread.join();
}

void WaitReporter::begin(const QString& task)
{
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_task = task;
        m_since = Clock::now();
        m_next_report = m_limit;
    }
    m_changed.notify_one();
}

void WaitReporter::watch()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    while (!m_stop) {
        if (m_task.isEmpty()) {
            m_changed.wait(locker);
            continue;
        }
        const Clock::time_point due = m_since + m_next_report;
        const Clock::time_point now = Clock::now();
        if (now < due) {
            m_changed.wait_until(locker, due); // a new task may have moved it
            continue;
        }
        m_next_report *= 2;
        const QString task = m_task;
        const Clock::duration elapsed = now - m_since;
        locker.unlock();
        report(task, elapsed);
        locker.lock();
    }
}

void WaitReporter::report(const QString& task, Clock::duration elapsed)
{
    const qint64 ns = std::chrono::duration_cast<std::chrono::nanoseconds>(elapsed).count();
    const QString begin = QStringLiteral("%1 for %2, ").arg(task, durationText(ns));
    const QStringList inboxes = unfinishedInboxes(CBusMonitor::statistics());
    if (inboxes.isEmpty())
        ProgressLine::say(begin + QStringLiteral("every inbox is empty"));
    for (const QString& inbox : inboxes)
        ProgressLine::say(begin + QStringLiteral("waiting for ") + inbox);
}
