#include "JournalPlugin.h"

#include <chrono>
#include <future>
#include <utility>

JournalPlugin::~JournalPlugin() = default;

// The writer opens the file and says how that went.
bool JournalPlugin::initialise(const QString& id, const QVariantMap& settings, QString& reason)
{
    m_id = id;
    m_file_name = settings.value(QStringLiteral("journal")).toString();
    if (!m_file_name.isEmpty()) {
        std::promise<QString> opened;
        m_writer = std::thread([this, &opened] {
            JournalFile file;
            const QString error = file.open(m_file_name);
            opened.set_value(error);
            if (error.isEmpty())
                write(file);
        });
        reason = opened.get_future().get();
        if (!reason.isEmpty()) {
            m_writer.join();
            return false;
        }
    }
    Reg(m_id, this, MessageThread | EventThread);
    Sub(m_id, lxclient::ExecutionType, 1);
    SubEvent(m_id, lxclient::PositionType, 1);
    return true;
}

// No handler runs any more once UnReg has returned; then the writer writes what waits, and ends.
void JournalPlugin::shutDown()
{
    UnReg(m_id);
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
    report.postings.append({QStringLiteral("orders"), QStringLiteral("executed"), m_executions});
    report.postings.append({QStringLiteral("position events"), QString(), m_position_events});
    if (m_file_name.isEmpty()) {
        report.remarks.append(QStringLiteral("no file"));
    } else {
        report.postings.append({QStringLiteral("orders"), QStringLiteral("rows"), m_rows});
        report.remarks.append(QStringLiteral("rows: %1").arg(m_rows));
        if (!m_error.isEmpty())
            report.faults.append(m_error);
    }
    return report;
}

void JournalPlugin::RecvMsg(QString, QVariant type, QVariant data)
{
    if (type.toInt() != lxclient::ExecutionType)
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_file_name.isEmpty())
            m_waiting.executions.append(data.value<lxclient::Execution>());
        ++m_executions;
    }
    m_changed.notify_one();
}

void JournalPlugin::RecvEvent(QString, QVariant type, QVariant data)
{
    if (type.toInt() != lxclient::PositionType)
        return;
    {
        const std::lock_guard<std::mutex> locker(m_mutex);
        if (!m_file_name.isEmpty())
            m_waiting.positions.append(data.value<lxclient::Position>());
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
            const QString error = file.write(batch);
            locker.lock();
            m_error = error;
            failed = !error.isEmpty();
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
