// Session: one run of the client, from loading the plugins to the end table.
#ifndef LXCLIENT_SESSION_H
#define LXCLIENT_SESSION_H

#include "Ledger.h"
#include "Options.h"
#include "PluginHost.h"
#include "ProgressLine.h"
#include "Tap.h"
#include "WaitReporter.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <optional>

// On the main thread, inside its event loop.
//
// Starting, then playing until the inputs have ended or were stopped, then settling: waiting until
// nothing is on its way any more. That is so when two sets of reports taken one after the other
// balance and are equal: between the two there was a moment at which everybody had exactly these
// counts, so whatever had been put by then had been received as well, and what was received had led
// to everything that it leads to (see <lxclient/Report.h>). If the counts stand still without
// balancing, the session waits for SettleLimitMs and then says so, and what it was waiting for. A
// session that has settled may stay until it is interrupted.
class Session : public QObject
{
    Q_OBJECT
public:
    static constexpr int SettleLimitMs = 30000;

    explicit Session(const Options& options);
    ~Session() override;

    // Starts everything. After an error the session is over.
    lxclient::Error start();

    // Ends it early. Any number of times.
    void interrupt();

    // After `ended`: shuts the plugins down and prints how it went.
    ExitCode finish();

signals:
    void ended();

private:
    enum class State { Playing, Settling, Staying, Ended };

    lxclient::Error takeSymbols();
    lxclient::Error linkPlugins();
    QVariantMap settingsFor(const QString& id) const;
    QVector<NamedReport> reports(const BusStatistics& bus) const;
    void tick();
    void settle();
    void end();

    const Options m_options;
    QVariantMap m_settings; // the host's own, the same for every plugin
    QMap<RelationColor_t, QStringList> m_links;
    Tap m_tap; // outlives the plugins, which put to its queues
    PluginHost m_host;

    State m_state = State::Playing;
    bool m_interrupted = false;
    Ledger m_last_ledger;
    QTimer m_timer;
    QElapsedTimer m_played;     // since the inputs were started
    QElapsedTimer m_standstill; // since a count changed
    qint64 m_played_ns = 0;
    std::optional<ProgressLine> m_progress;      // while it plays and settles
    std::optional<WaitReporter> m_wait_reporter; // while it settles
};

#endif
