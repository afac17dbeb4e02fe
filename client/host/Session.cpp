#include "Session.h"

#include "BusTables.h"
#include "Summary.h"

#include <Recordings.h>
#include <SyntheticSession.h>

#include <lxbase/BusMonitor.h>
#include <lxclient/Accounts.h>
#include <lxclient/LinkedSelection.h>

#include <QFileInfo>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

using lxclient::Error;
namespace setting = lxclient::setting;

namespace {

constexpr int TickMs = 2;
constexpr int LookMs = 200;     // between looks at the backlogs
constexpr int SayAfterMs = 300; // an interruption, what is waited for: mostly it is over by then
constexpr int InVainMs = 1000;  // with nothing on its way, for counts that will not agree
constexpr std::chrono::milliseconds GuideInterval(20);
constexpr std::chrono::milliseconds AbandonedDeadline(1000); // of plugins, once it is abandoned

} // namespace

Session::Session(const Options& options)
    : m_options(options)
    , m_trace(options.trace_file)
    , m_host(std::chrono::milliseconds(options.plugin_deadline_ms),
             [this](const CallWatch::Overrun& overrun) { endWithout(overrun); })
{
    m_settings = {
        {setting::Quotes, options.recordings},
        {setting::Speed, options.speed},
        {setting::SyntheticQuotes, options.synthetic_quotes},
        {setting::SyntheticSeed, options.synthetic_seed},
        {setting::Boards, options.boards},
        {setting::BoardsKeepLatest, options.boards_keep_latest},
        {setting::Heard, QVariant::fromValue(m_tap.heard())},
        {setting::Journal, options.journal_file},
    };
    if (options.metrics_port)
        m_settings.insert(setting::MetricsPort, *options.metrics_port);
    if (options.windows)
        m_settings.insert(setting::Windows, true);
    if (options.skip_gaps_s)
        m_settings.insert(setting::SkipGaps, *options.skip_gaps_s);
    if (!options.link_server.isEmpty()) {
        m_settings.insert(setting::Link, options.link_server);
        m_settings.insert(setting::LinkRole, options.link_role);
        m_settings.insert(setting::LinkDesk, options.link_desk);
        m_settings.insert(setting::LinkStore, options.link_store);
        m_settings.insert(setting::LinkCredentials, options.link_credentials);
        if (options.link_role != QLatin1String("desk"))
            m_settings.insert(setting::Service, true);
    }
    connect(&m_timer, &QTimer::timeout, this, &Session::tick);
}

// While there is everything that the end from another thread needs, and after the strings that may
// be data of the libraries.
Session::~Session()
{
    m_last_ledger = Ledger();
    m_host.unload();
}

Error Session::start()
{
    if (const Error error = takeSymbols())
        return error;
    if (const Error error = m_host.readMetaData(m_options.plugin_folders))
        return error;
    if (const Error error = m_host.set(m_options.plugin_settings))
        return error;
    if (const Error error = m_host.load(m_settings))
        return error;
    if (const Error error = linkPlugins())
        return error;
    if (const Error error = prepare())
        return error;
    if (!m_options.link_server.isEmpty() && !m_host.hasGuide()) {
        return Error(QStringLiteral("--link: there is no plugin link in %1; it is built where "
                                    "libnats and protobuf are installed")
                         .arg(m_options.plugin_folders.join(QLatin1String(", "))));
    }
    if (m_options.metrics_port && !m_host.ids().contains(QStringLiteral("metrics"))) {
        return Error(QStringLiteral("--metrics: there is no plugin metrics in %1")
                         .arg(m_options.plugin_folders.join(QLatin1String(", "))));
    }

    CBusMonitor::setStallLimit(m_options.stall_limit_ms);
    if (m_options.statistics)
        CBusMonitor::setLevel(StatisticsLevel::Sampled);
    if (!m_options.trace_file.isEmpty() || !m_options.follow.isEmpty()) {
        if (const Error error = m_trace.start(m_options.trace_mib))
            return error;
    }
    auto* const center = CMessageCenter::GetInstance();
    center->setIdlePolicy(m_options.idle);
    center->Start();
    const QStringList ids = m_host.ids();
    for (const QString& id : ids) {
        if (const Error error = interruption())
            return error;
        if (const Error error = m_host.initialise(id, settingsFor(id)))
            return error;
    }
    if (!m_options.record_file.isEmpty()) {
        if (const Error error = m_tap.recordTo(m_options.record_file))
            return error;
    }
    m_host.started();
    m_tap.start(m_settings.value(setting::Symbols).toStringList(),
                {m_options.speed, m_options.skip_gaps_s});
    m_played.start();
    m_progress.emplace(m_options.quiet ? ProgressLine::Amount::None : ProgressLine::Amount::All);
    m_host.startInputs();
    m_timer.start(TickMs);
    return {};
}

void Session::requestInterrupt()
{
    m_interrupt_requested = true;
    QMetaObject::invokeMethod(this, &Session::interrupt, Qt::QueuedConnection);
}

// If the main thread is in a plugin that does not return, the shorter deadline ends it.
void Session::requestAbandon()
{
    m_host.setDeadline(AbandonedDeadline);
    QMetaObject::invokeMethod(this, &Session::abandon, Qt::QueuedConnection);
}

void Session::interrupt()
{
    if (m_state == State::Staying) {
        end();
    } else if (m_state != State::Ended) {
        m_interrupted = true;
        m_interruption.start();
        m_interrupted_after_s = static_cast<double>(m_played.elapsed()) / 1e3;
        m_host.stopInputs();
    }
}

void Session::abandon()
{
    if (m_state == State::Ended)
        return;
    m_abandoned = true;
    if (m_state != State::Staying)
        stopWaiting();
    end();
}

// An interruption while it starts.
Error Session::interruption() const
{
    return m_interrupt_requested
        ? Error(QStringLiteral("interrupted before the first quote was played"))
        : Error();
}

// The verdict is on the reports that follow the shutdown: only then are all accounts closed. So is
// the count of what was lost; but the inboxes go with the shutdown.
ExitCode Session::finish()
{
    BusStatistics bus = CBusMonitor::statistics();
    m_backlogs.look(bus);
    bool whole = true;
    {
        WaitReporter waitReporter(m_options.stall_limit_ms);
        const std::chrono::milliseconds stuckLimit = m_abandoned
            ? AbandonedDeadline
            : std::chrono::milliseconds(m_options.plugin_deadline_ms);
        whole = m_host.shutDown(
            [&](const QString& id) {
                waitReporter.begin(QStringLiteral("shutting down %1").arg(id));
            },
            stuckLimit);
    }
    bus.lost = CBusMonitor::statistics().lost;
    m_tap.stop();
    const ExitCode code = print(m_host.reports(), bus);
    if (!whole)
        std::_Exit(code);
    return code;
}

// Flushed, for the program may end right after it.
ExitCode Session::print(QVector<NamedReport> reports, const BusStatistics& bus)
{
    addOwnReports(reports, bus);
    const Ledger ledger(reports);
    SessionFigures figures;
    const Tap::Progress played = m_tap.progress();
    figures.quotes = played.quotes;
    figures.played_ns = m_played_ns;
    if (m_options.speed > 0) // up to an interruption it may have waited for the next quote
        figures.due_s = std::max(played.due_s, m_interrupted_after_s);
    figures.ending = m_abandoned ? QStringLiteral("abandoned")
        : m_interrupted          ? QStringLiteral("interrupted")
                                 : QString();
    figures.record_file = m_options.record_file;
    figures.recorded = m_tap.recorded();
    figures.backlogs = m_backlogs;
    figures.bus = bus;
    figures.statistics = m_options.statistics;
    std::fputs(qPrintable(summary(reports, ledger, figures)), stdout);
    m_printed = true;
    if (!m_options.follow.isEmpty())
        std::fputs(qPrintable(QLatin1Char('\n') + TraceFile::wayTable(m_options.follow)), stdout);
    std::fflush(stdout);
    const bool traced = m_trace.end();
    return ledger.balances() && traced ? ExitBalanced : ExitUnbalanced;
}

// On the thread that watches the calls, which has the main thread's objects to itself. Calls no
// plugin: what one holds, another may wait for.
void Session::endWithout(const CallWatch::Overrun& overrun)
{
    overrun.plugin.fail(overrun.what, QStringLiteral("the session ends without it"));
    const BusStatistics bus = CBusMonitor::statistics();
    for (const QString& inbox : unfinishedInboxes(bus))
        ProgressLine::say(QStringLiteral("still waiting for ") + inbox);
    if (!m_printed) {
        if (m_played_ns == 0 && m_played.isValid())
            m_played_ns = m_played.nsecsElapsed();
        m_tap.stop();
        QVector<NamedReport> reports = m_host.lastReports();
        const QString& id = overrun.plugin.id();
        const bool known = std::any_of(reports.begin(), reports.end(),
                                       [&](const NamedReport& named) { return named.id == id; });
        if (!known) { // it is still being made
            reports.append({id, {}});
            reports.last().report.faults = overrun.plugin.faults();
        }
        static_cast<void>(print(reports, bus));
    }
    std::_Exit(ExitUnbalanced);
}

// What can be quoted has to be known before the first quote, so that plugins can subscribe to it.
// Recordings are therefore read through once before they are played.
Error Session::takeSymbols()
{
    QStringList symbols = SyntheticSession::symbols();
    if (!m_options.recordings.isEmpty()) {
        const QFileInfo target(m_options.record_file);
        for (const QString& recording : m_options.recordings) {
            if (target.exists()
                && target.canonicalFilePath() == QFileInfo(recording).canonicalFilePath()) {
                return Error(QStringLiteral("cannot be played and recorded to at the same time"))
                    .about(recording);
            }
        }
        const auto isInterrupted = [this] { return m_interrupt_requested.load(); };
        if (const Error error = scanSymbols(m_options.recordings, symbols, isInterrupted))
            return error;
        if (const Error error = interruption())
            return error;
    }
    symbols.sort(); // the same whichever was quoted first
    m_settings.insert(setting::Symbols, symbols);
    return {};
}

// What a guide has to wait for, a feed that tells the symbols say, may take as long as it likes.
Error Session::prepare()
{
    QString said;
    for (;;) {
        bool complete = false;
        QString waitingFor;
        if (const Error error = m_host.prepare(m_settings, complete, waitingFor))
            return error;
        if (complete)
            return {};
        if (const Error error = interruption())
            return error;
        if (!waitingFor.isEmpty() && waitingFor != said)
            ProgressLine::say(QStringLiteral("waiting for ") + waitingFor);
        said = waitingFor;
        std::this_thread::sleep_for(GuideInterval);
    }
}

Error Session::linkPlugins()
{
    const QStringList known = m_host.ids();
    for (auto link = m_options.links.constBegin(); link != m_options.links.constEnd(); ++link) {
        QStringList& group = m_links[link.key()];
        for (const QString& id : link.value()) {
            if (known.contains(id)) {
                group.append(id);
            } else if (!m_options.links_by_default) {
                return Error(QStringLiteral("--link: there is no plugin %1; there are %2")
                                 .arg(id, known.join(QLatin1String(", "))));
            }
        }
        lxclient::linkWindows(group, link.key());
    }
    return {};
}

QVariantMap Session::settingsFor(const QString& id) const
{
    QVariantMap settings = m_settings;
    QStringList linked;
    for (const QStringList& group : m_links) {
        if (group.contains(id))
            linked = group;
    }
    linked.removeAll(id);
    settings.insert(setting::Linked, linked);
    return settings;
}

// What the host knows by itself; what the bus counts is asked for while the plugins are registered.
void Session::addOwnReports(QVector<NamedReport>& reports, const BusStatistics& bus) const
{
    reports.append({QStringLiteral("tap"), m_tap.report()});
    if (!m_options.boards_keep_latest)
        return;
    lxclient::Report superseded;
    for (const InboxStatistics& inbox : bus.inboxes) {
        if (inbox.kind == InboxKind::Quotations
            && inbox.plugin.section(QLatin1Char('#'), 0, 0) == QLatin1String("board")) {
            superseded.post(lxclient::account::supersededQuotesAt(inbox.plugin), inbox.superseded);
        }
    }
    reports.append({QStringLiteral("bus"), superseded});
}

void Session::tick()
{
    if (!m_looked.isValid() || m_looked.elapsed() >= LookMs) {
        m_looked.start();
        m_backlogs.look(CBusMonitor::statistics());
        if (!CBusMonitor::stalls().isEmpty())
            m_trace.noteStall();
    }
    m_progress->show(m_tap, m_backlogs);
    m_any_failed = m_host.shutDownFailed();
    if (m_interrupted && !m_said_what_it_waits_for && m_interruption.elapsed() >= SayAfterMs)
        sayWhatItWaitsFor();
    if (m_state == State::Playing && m_host.inputsEnded()) {
        m_state = State::Settling;
        m_wait_reporter.emplace(m_options.stall_limit_ms);
        m_wait_reporter->begin(QStringLiteral("settling"));
        m_standstill.start();
        m_last_ledger = Ledger();
        m_looked.invalidate();
    } else if (m_state == State::Settling) {
        settle();
    }
}

void Session::settle()
{
    QVector<NamedReport> reports = m_host.reports();
    addOwnReports(reports, CBusMonitor::statistics());
    const Ledger ledger(reports);
    const bool moved = !(ledger == m_last_ledger);
    m_last_ledger = ledger;
    if (moved)
        m_standstill.restart();
    const bool settled = !moved && ledger.accountsBalance();
    const qint64 still = m_standstill.elapsed();
    const std::chrono::milliseconds deadline(m_options.plugin_deadline_ms);
    const bool inVain = (m_any_failed && still >= InVainMs && m_backlogs.now().isEmpty())
        || (still >= deadline.count() && !m_host.stuck(deadline).isEmpty());
    if (!settled && !inVain && still < SettleLimitMs)
        return;
    stopWaiting();
    if (!settled) {
        ProgressLine::say(QStringLiteral("the ledger has not changed for %1 s and does not "
                                         "balance; giving up waiting.")
                              .arg(still / 1000));
        for (const QString& inbox : unfinishedInboxes(CBusMonitor::statistics()))
            ProgressLine::say(QStringLiteral("still waiting for ") + inbox);
    }
    if (settled && m_options.stay && !m_interrupted) {
        m_state = State::Staying;
        ProgressLine::say(QStringLiteral("everything was received; Ctrl+C ends."));
    } else {
        end();
    }
}

// It has been played, as far as it will be.
void Session::stopWaiting()
{
    m_played_ns = m_played.nsecsElapsed();
    m_timer.stop();
    m_wait_reporter.reset();
    m_progress.reset();
}

void Session::sayWhatItWaitsFor()
{
    m_said_what_it_waits_for = true;
    QStringList names;
    for (const Backlog& backlog : m_backlogs.now())
        names.append(backlog.toString());
    if (names.isEmpty()) {
        names.append(m_state == State::Playing
                         ? QStringLiteral("the quotes to stop")
                         : QStringLiteral("the counts of the plugins to agree"));
    }
    ProgressLine::say(QStringLiteral("waiting for %1; press again to abandon")
                          .arg(names.join(QLatin1String(", "))));
}

void Session::end()
{
    m_state = State::Ended;
    emit ended();
}
