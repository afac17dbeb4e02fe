#include "JournalPlugin.h"

#include <lxclient/Accounts.h>

#include <QLoggingCategory>

#include <chrono>
#include <future>
#include <utility>

using lxclient::Error;
namespace account = lxclient::account;
namespace counted = lxclient::counted;

namespace {

Q_LOGGING_CATEGORY(lcJournal, "lxclient.journal")

} // namespace

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
        const quint64 firstOrder = settings.value(lxclient::setting::FirstOrder, 1).toULongLong();
        m_writer = std::thread([this, firstOrder, &opened] {
            JournalKeeper keeper(m_file_name);
            keeper.setFirstOrder(firstOrder);
            const Error error = keeper.open();
            m_standing = keeper.standing(); // nobody else asks before `opened`
            opened.set_value(error);
            if (!error)
                write(keeper);
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
        // what is kept is not on its way any more, so the end need not wait for it
        const quint64 waiting = m_standing.kept + m_standing.unwritten;
        report.post(account::Orders, counted::Rows + QLatin1String(waiting > 0 ? " and kept" : ""),
                    m_standing.rows + waiting);
        report.remarks.append(QStringLiteral("rows: %1").arg(m_standing.rows));
        if (m_standing.taken_in > 0)
            report.remarks.append(
                QStringLiteral("of earlier sessions: %1").arg(m_standing.taken_in));
        if (waiting > 0) {
            report.remarks.append(QStringLiteral("in memory: %1, in %2.unwritten: %3")
                                      .arg(m_standing.kept)
                                      .arg(m_file_name)
                                      .arg(m_standing.unwritten));
        }
        if (m_error) {
            report.faults.append(
                QStringLiteral(
                    "%1 of %2 executions are not in the journal, %3 of them in %4.unwritten "
                    "for the next session to take in: %5")
                    .arg(m_executions - m_standing.rows)
                    .arg(m_executions)
                    .arg(m_standing.unwritten)
                    .arg(m_file_name, m_error.words()));
        }
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
        const auto position = payload.value<lxclient::Position>();
        if (!m_file_name.isEmpty())
            m_waiting.positions.insert(position.symbol, position);
        ++m_position_events;
    }
    m_changed.notify_one();
}

// A transaction that fails (the disk is full, say) is tried again with what has come since, not at
// once but after a pause; at the end there is one last try.
void JournalPlugin::write(JournalKeeper& keeper)
{
    constexpr std::chrono::milliseconds pauseAfterFailure(500);
    std::unique_lock<std::mutex> locker(m_mutex);
    bool stop = false;
    while (!stop) {
        if (m_error)
            m_changed.wait_for(locker, pauseAfterFailure, [this] { return m_stop; });
        else
            m_changed.wait(locker, [this] { return m_stop || !m_waiting.isEmpty(); });
        stop = m_stop;
        const JournalBatch batch = std::exchange(m_waiting, {});
        const Error before = m_error;
        locker.unlock();
        const Error error = stop ? keeper.finish(batch) : keeper.write(batch);
        if (error.words() != before.words())
            sayWhatChanged(error);
        locker.lock();
        m_error = error;
        m_standing = keeper.standing();
    }
}

void JournalPlugin::sayWhatChanged(const Error& error)
{
    if (error) {
        qCWarning(lcJournal).noquote()
            << error.words() << "- executions are kept until they can be written";
    } else {
        qCWarning(lcJournal).noquote()
            << m_file_name + ": can be written again, nothing is missing";
    }
}
