// Session: one run of the client, from loading the plugins to the end table.
#ifndef LXCLIENT_SESSION_H
#define LXCLIENT_SESSION_H

#include "Backlogs.h"
#include "Ledger.h"
#include "Options.h"
#include "PluginHost.h"
#include "ProgressLine.h"
#include "Tap.h"
#include "TraceFile.h"
#include "WaitReporter.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <optional>

// On the main thread, inside its event loop.
//
// Starting, then playing until the inputs have ended or were stopped, then settling: waiting until
// nothing is on its way any more. That is so when two sets of reports taken one after the other
// balance and are equal: between the two there was a moment at which everybody had exactly these
// counts, so whatever had been put by then had been received as well, and what was received had led
// to everything that it leads to (see <lxclient/Report.h>). If the counts stand still without
// balancing, the session waits for SettleLimitMs and then says so, and what it was waiting for. It
// waits less for what cannot come: a handler that has been running for as long as the deadline of
// the plugins, or the counts of a plugin that has failed. A session that has settled may stay until
// it is interrupted.
//
// A plugin that does not return to the main thread ends the session from the thread that watches
// the calls: with the reports that it has, and without destroying anything.
class Session : public QObject
{
    Q_OBJECT
public:
    static constexpr int SettleLimitMs = 30000;

    explicit Session(const Options& options);
    ~Session() override;

    // Starts everything. After an error the session is over.
    lxclient::Error start();

    // Ends it early, also while it starts. Any thread.
    void requestInterrupt();

    // Ends it without waiting for what is on its way, and for plugins only shortly. Any thread.
    void requestAbandon();

    // After `ended`: shuts the plugins down and prints how it went. Ends the program, with the same
    // code, if a handler does not return: nothing may then be destroyed.
    ExitCode finish();

signals:
    void ended();

private:
    enum class State { Playing, Settling, Staying, Ended };

    lxclient::Error takeSymbols();
    lxclient::Error prepare();
    lxclient::Error linkPlugins();
    QVariantMap settingsFor(const QString& id) const;
    lxclient::Error interruption() const;
    void addOwnReports(QVector<NamedReport>& reports, const BusStatistics& bus) const;
    ExitCode print(QVector<NamedReport> reports, const BusStatistics& bus);
    [[noreturn]] void endWithout(const CallWatch::Overrun& overrun);
    void tick();
    void settle();
    void stopWaiting();
    void interrupt();
    void abandon();
    void sayWhatItWaitsFor();
    void end();

    const Options m_options;
    QVariantMap m_settings; // the host's own, the same for every plugin
    QMap<RelationColor_t, QStringList> m_links;
    TraceFile m_trace; // before what makes threads
    Tap m_tap;         // outlives the plugins, which put to its queues
    PluginHost m_host;

    // atomic: set by whoever interrupts, read while the session starts
    std::atomic<bool> m_interrupt_requested{false};

    State m_state = State::Playing;
    bool m_interrupted = false;
    bool m_abandoned = false;
    bool m_said_what_it_waits_for = false;
    bool m_any_failed = false; // of the plugins
    bool m_printed = false;
    Backlogs m_backlogs;
    Ledger m_last_ledger;
    QTimer m_timer;
    QElapsedTimer m_played;     // since the inputs were started
    QElapsedTimer m_standstill; // since a count changed
    QElapsedTimer m_looked;     // at the backlogs
    QElapsedTimer m_interruption;
    double m_interrupted_after_s = 0; // of playing; 0: it was not interrupted
    qint64 m_played_ns = 0;
    std::optional<ProgressLine> m_progress;      // while it plays and settles
    std::optional<WaitReporter> m_wait_reporter; // while it settles
};

#endif
