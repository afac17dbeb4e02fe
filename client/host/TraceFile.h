// TraceFile: what the bus has recorded, for --trace and --follow.
#ifndef LXCLIENT_TRACEFILE_H
#define LXCLIENT_TRACEFILE_H

#include <lxclient/Error.h>

#include <QMutex>
#include <QString>

#include <atomic>
#include <thread>

// Records from start() on. The trace of the whole session goes to the file itself, at the end;
// before that, whenever the process gets SIGUSR1, and once when a handler stalls, what there is
// then goes to a file of its own beside it, whatever the main thread does meanwhile: day.json,
// day.1.json, day.2.json. Without a file, SIGUSR1 does what the system does by default.
class TraceFile
{
public:
    // No file: an empty name. Made before all threads that the signal must not reach.
    explicit TraceFile(const QString& file);
    ~TraceFile();
    TraceFile(const TraceFile&) = delete;
    TraceFile& operator=(const TraceFile&) = delete;

    // Refused if its ending names no format.
    static lxclient::Error check(const QString& file);

    // Refused if the file cannot be written.
    lxclient::Error start(int mebibytes);

    // A handler stalls. The first time, a file is written, on a thread of its own.
    void noteStall();

    // Records no more and writes the file, unless that has been done. What went wrong has been
    // said; then false. Any thread.
    bool end();

    // What became of a trace ID, as a table.
    static QString wayTable(const QString& traceId);

private:
    void waitForRequests();
    bool write(const QString& file, const QString& why);

    const QString m_file;
    std::thread m_requests; // waits for the signal

    // atomic: set by one thread, read by the one that waits for the signal
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_stalled{false};

    bool m_noted_stall = false; // the main thread's

    QMutex m_mutex; // one file at a time
    int m_written = 0;
    bool m_ended = false;
    bool m_whole = true;
};

#endif
