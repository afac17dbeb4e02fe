#include "JournalPlugin.h"

#include <lxclient/Accounts.h>

#include <chrono>
#include <future>
#include <utility>

using lxclient::Error;
namespace account = lxclient::account;
namespace counted = lxclient::counted;

JournalPlugin::JournalPlugin()
    : PluginBase(MessageThread | EventThread)
{ }

JournalPlugin::~JournalPlugin() = default;

// The writer opens the file and says how that went.
Error JournalPlugin::onInitialise(const QVariantMap& settings)
{
    m_file_name = settings.value(lxclient::setting::Journal).toString();
    if (!m_file_name.isEmpty()) {
        std::promise<Error> opened;
        m_writer = std::thread([this, &opened] {
            JournalFile file;
            const Error error = file.open(m_file_name);
            opened.set_value(error);
            if (!error)
                write(file);
        });
        if (const Error error = opened.get_future().get()) {
            m_writer.join();
            return error;
        }
    }
    subscribe(lxclient::ExecutionType);
    subscribeEvent(lxclient::PositionType);
    return {};
}

// No handler runs any more: the writer writes what waits, and ends.
void JournalPlugin::onShutDown()
{
    if (!m_writer.joinable())
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        m_stop = true;
    }
    m_changed.notify_one();
    m_writer.join();
}

lxclient::Report JournalPlugin::report() const
{
    lxclient::Report report;
    const std::lock_guard<std::mutex> locker(m_mutex);
    report.messages = m_executions;
    report.events = m_position_events;
    report.post(account::Orders, counted::Executed, m_executions);
    report.post(account::PositionEvents, m_position_events);
    if (m_file_name.isEmpty()) {
        report.remarks.append(QStringLiteral("no file"));
    } else {
        report.post(account::Orders, counted::Rows, m_rows);
        report.remarks.append(QStringLiteral("rows: %1").arg(m_rows));
        if (m_error)
            report.faults.append(m_error.words());
    }
    return report;
}

void JournalPlugin::onMessage(const QString&, int type, const QVariant& payload)
{
    if (type != lxclient::ExecutionType)
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_file_name.isEmpty())
            m_waiting.executions.append(payload.value<lxclient::Execution>());
        ++m_executions;
    }
    m_changed.notify_one();
}

void JournalPlugin::onEvent(const QString&, int type, const QVariant& payload)
{
    if (type != lxclient::PositionType)
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_file_name.isEmpty())
            m_waiting.positions.append(payload.value<lxclient::Position>());
        ++m_position_events;
    }
    m_changed.notify_one();
}

// A transaction that fails (the disk is full, say) is tried again with what has come since, not at
// once but after a pause; at the end there is one last try.
void JournalPlugin::write(JournalFile& file)
{
    constexpr std::chrono::milliseconds pauseAfterFailure(500);
    JournalBatch batch;
    bool failed = false;
    std::unique_lock<std::mutex> locker(m_mutex);
    for (;;) {
        if (failed)
            m_changed.wait_for(locker, pauseAfterFailure, [this] { return m_stop; });
        else
            m_changed.wait(locker, [this] { return m_stop || !m_waiting.isEmpty(); });
        const bool last = m_stop;
        batch.executions += std::exchange(m_waiting.executions, {});
        batch.positions += std::exchange(m_waiting.positions, {});
        if (!batch.isEmpty()) {
            locker.unlock();
            const Error error = file.write(batch);
            locker.lock();
            m_error = error;
            failed = bool(error);
            if (!failed) {
                m_rows += static_cast<quint64>(batch.executions.size());
                batch = JournalBatch();
            }
        }
        if (last)
            break;
    }
    m_rows = file.countExecutions(); // what really is there
}
