#include "Session.h"

#include "BusTables.h"
#include "Summary.h"

#include <Recordings.h>
#include <SyntheticSession.h>

#include <lxbase/BusMonitor.h>

#include <QFileInfo>

#include <cstdio>

using lxclient::Error;
namespace setting = lxclient::setting;

namespace {

constexpr int TickMs = 2;

QString baseOf(const QString& id)
{
    return id.section(QLatin1Char('#'), 0, 0);
}

} // namespace

Session::Session(const Options& options)
    : m_options(options)
{
    m_settings = {
        {setting::Quotes, options.recordings},
        {setting::Speed, options.speed},
        {setting::SyntheticQuotes, options.synthetic_quotes},
        {setting::SyntheticSeed, options.synthetic_seed},
        {setting::Boards, options.boards},
        {setting::Journal, options.journal_file},
    };
    if (options.metrics_port)
        m_settings.insert(setting::MetricsPort, *options.metrics_port);
    connect(&m_timer, &QTimer::timeout, this, &Session::tick);
}

Session::~Session() = default;

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
    if (m_options.metrics_port && !m_host.ids().contains(QStringLiteral("metrics"))) {
        return Error(QStringLiteral("--metrics: there is no plugin metrics in %1")
                         .arg(m_options.plugin_folders.join(QLatin1String(", "))));
    }

    CBusMonitor::setStallLimit(m_options.stall_limit_ms);
    if (m_options.statistics)
        CBusMonitor::setLevel(StatisticsLevel::Sampled);
    auto* const center = CMessageCenter::GetInstance();
    center->setIdlePolicy(m_options.idle);
    center->Start();
    const QStringList ids = m_host.ids();
    for (const QString& id : ids) {
        if (const Error error = m_host.initialise(id, settingsFor(id)))
            return error;
    }
    if (!m_options.record_file.isEmpty()) {
        if (const Error error = m_tap.recordTo(m_options.record_file))
            return error;
    }
    m_tap.start(m_settings.value(setting::Symbols).toStringList());
    m_played.start();
    m_progress.emplace();
    m_host.startInputs();
    m_timer.start(TickMs);
    return {};
}

void Session::interrupt()
{
    if (m_state == State::Staying) {
        end();
    } else {
        m_interrupted = true;
        m_host.stopInputs();
    }
}

// The verdict is on the reports that follow the shutdown: only then are all accounts closed. So is
// the count of what was lost; but the inboxes go with the shutdown.
ExitCode Session::finish()
{
    BusStatistics bus = CBusMonitor::statistics();
    {
        WaitReporter waitReporter(m_options.stall_limit_ms);
        m_host.shutDown([&](const QString& id) {
            waitReporter.begin(QStringLiteral("shutting down %1").arg(id));
        });
    }
    bus.lost = CBusMonitor::statistics().lost;
    m_tap.stop();
    const QVector<NamedReport> last = reports();
    const Ledger ledger(last);
    const QString text =
        summary(last, ledger,
                {m_tap.progress().quotes, m_played_ns, m_interrupted, m_options.record_file,
                 m_tap.recorded(), bus, m_options.statistics});
    std::fputs(qPrintable(text), stdout);
    std::fflush(stdout);
    return ledger.balances() ? ExitBalanced : ExitUnbalanced;
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
        if (const Error error = scanSymbols(m_options.recordings, symbols))
            return error;
    }
    symbols.sort(); // the same whichever was quoted first
    m_settings.insert(setting::Symbols, symbols);
    return {};
}

// A group is filed under the base ID of each window in it, so that each of them reaches the others.
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
        for (const QString& sender : qAsConst(group)) {
            for (const QString& id : qAsConst(group))
                CRegManager::setRelation(baseOf(sender), id, lxclient::SelectionType, link.key(),
                                         1);
        }
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

QVector<NamedReport> Session::reports() const
{
    QVector<NamedReport> reports = m_host.reports();
    reports.append({QStringLiteral("tap"), m_tap.report()});
    return reports;
}

void Session::tick()
{
    m_progress->show(m_tap);
    if (m_state == State::Playing && m_host.inputsEnded()) {
        m_state = State::Settling;
        m_wait_reporter.emplace(m_options.stall_limit_ms);
        m_wait_reporter->begin(QStringLiteral("settling"));
        m_standstill.start();
        m_last_ledger = Ledger();
    } else if (m_state == State::Settling) {
        settle();
    }
}

void Session::settle()
{
    const Ledger ledger(reports());
    const bool moved = !(ledger == m_last_ledger);
    m_last_ledger = ledger;
    if (moved)
        m_standstill.restart();
    const bool settled = !moved && ledger.accountsBalance();
    if (!settled && m_standstill.elapsed() < SettleLimitMs)
        return;
    m_played_ns = m_played.nsecsElapsed();
    m_timer.stop();
    m_wait_reporter.reset();
    m_progress.reset();
    if (!settled) {
        ProgressLine::say(QStringLiteral("the ledger has not changed for %1 s and does not "
                                         "balance; giving up waiting.")
                              .arg(SettleLimitMs / 1000));
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

void Session::end()
{
    m_state = State::Ended;
    emit ended();
}
