// Tap: listens to everything that the net plugin hands in, beside the bus, and may record the
// quotes.
#ifndef LXCLIENT_TAP_H
#define LXCLIENT_TAP_H

#include <RecordingWriter.h>

#include <lxbase/MessageCenter.h>
#include <lxclient/Protocol.h>
#include <lxclient/QuoteAudit.h>

#include <QMutex>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

// A component of the host, not a plugin: it drains the outside queues of both network paths on a
// thread of its own and counts what comes, independently of the plugins.
class Tap
{
public:
    Tap();
    // Ends the registration of the queues. Whoever puts on the network paths has stopped by then.
    ~Tap();
    Q_DISABLE_COPY(Tap)

    // Records the quotes to this file. Called before start.
    lxclient::Error recordTo(const QString& fileName);

    // How the quotes are played, by which it tells how long that should have taken: so many times
    // real time (0: at once), without pauses of more seconds than this.
    struct Pace
    {
        double speed = 0;
        std::optional<double> skip_gaps_s;
    };

    // Registers the queues and begins to drain them. Called before quotes, of these symbols, flow.
    void start(const QStringList& symbols, const Pace& pace);

    // Drains the queues to the end and finishes the recording.
    void stop();

    lxclient::Report report() const;

    // Counts on while it drains.
    lxclient::HeardQuotes heard() const { return m_heard; }

    // How many quotes are in the recording.
    quint64 recorded() const;

    struct Progress
    {
        quint64 quotes;
        qint64 time_ms; // of the latest quote
        double due_s;   // after which time it was due
    };
    Progress progress() const;

private:
    void listen();
    bool drainOnce();
    void hear(CMessageCommon& msg);
    void noteRecording(const lxclient::Error& error);

    CMessageCenter::MessageQueue m_net_queue;
    CMessageCenter::MessageQueue m_quotation_queue;
    std::thread m_thread;
    std::atomic<bool> m_stop{false}; // atomic: set by the host, read by the listening thread

    const lxclient::HeardQuotes m_heard = std::make_shared<std::atomic<quint64>>(0);
    Pace m_pace; // constant after start

    std::unique_ptr<RecordingWriter> m_recording; // the listening thread's, after start

    mutable QMutex m_mutex;
    // guarded by m_mutex
    lxclient::QuoteAudit m_audit;
    quint64 m_acknowledged = 0;
    quint64 m_executed = 0;
    quint64 m_recorded = 0;
    qint64 m_time_ms = 0; // of the latest quote; quotes may come with earlier ones
    double m_due_s = 0;
    lxclient::Error m_recording_error;
};

#endif
