#include "TraceFile.h"

#include "BusTables.h"
#include "ProgressLine.h"
#include "TextTable.h"

#include <lxbase/BusTrace.h>
#include <lxclient/Report.h>
#include <lxobserve/TraceFormats.h>
#include <lxobserve/Way.h>

#include <QDir>
#include <QFileInfo>
#include <QSaveFile>

#include <csignal>

using lxclient::Error;
using lxobserve::Hop;

namespace {

bool isJson(const QString& file)
{
    return file.endsWith(QLatin1String(".json"));
}

Error cannotBeWritten(const QString& file, const QString& why)
{
    return Error(QStringLiteral("cannot be written: ") + why).about(file);
}

sigset_t requestSignal()
{
    sigset_t set;
    ::sigemptyset(&set);
    ::sigaddset(&set, SIGUSR1);
    return set;
}

// "orders: RecvMsg 266241 from strategy", behind two spaces for each hop that has led to it.
QString hopText(const QVector<Hop>& way, const Hop& hop)
{
    QString text;
    for (int cause = hop.cause; cause >= 0; cause = way[cause].cause)
        text += QLatin1String("  ");
    text += QStringLiteral("%1: %2 %3").arg(hop.plugin, hop.operation, hop.type);
    switch (hop.kind) {
    case Hop::Kind::Handler:
        return text + QLatin1String(" from ") + hop.peer;
    case Hop::Kind::Lost:
        return text + QLatin1String(", LOST");
    default:
        return hop.peer.isEmpty() ? text : text + QLatin1String(" to ") + hop.peer;
    }
}

} // namespace

// The signal is blocked in all threads, which inherit that, and taken by one that waits for it.
TraceFile::TraceFile(const QString& file)
    : m_file(file)
{
    if (m_file.isEmpty())
        return;
    const sigset_t set = requestSignal();
    ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
    m_requests = std::thread([this] { waitForRequests(); });
}

TraceFile::~TraceFile()
{
    if (!m_requests.joinable())
        return;
    m_stop = true;
    ::pthread_kill(m_requests.native_handle(), SIGUSR1);
    m_requests.join();
}

Error TraceFile::check(const QString& file)
{
    if (isJson(file) || file.endsWith(QLatin1String(".pftrace")))
        return {};
    return Error(QStringLiteral("--trace %1: a name that ends in .pftrace (Perfetto) or .json "
                                "(Chrome trace events) is expected.")
                     .arg(file));
}

Error TraceFile::start(int mebibytes)
{
    if (!m_file.isEmpty()) {
        QSaveFile target(m_file);
        if (!target.open(QIODevice::WriteOnly))
            return cannotBeWritten(m_file, target.errorString());
    }
    CBusMonitor::startTrace(mebibytes);
    return {};
}

void TraceFile::noteStall()
{
    if (m_file.isEmpty() || m_noted_stall)
        return;
    m_noted_stall = true;
    m_stalled = true;
    ::pthread_kill(m_requests.native_handle(), SIGUSR1);
}

bool TraceFile::end()
{
    CBusMonitor::stopTrace();
    const QMutexLocker locker(&m_mutex);
    if (!m_ended && !m_file.isEmpty())
        m_whole = write(m_file, QString());
    m_ended = true;
    return m_whole;
}

void TraceFile::waitForRequests()
{
    const sigset_t set = requestSignal();
    int number = 0;
    while (::sigwait(&set, &number) == 0 && !m_stop) {
        const QMutexLocker locker(&m_mutex);
        if (m_ended)
            continue;
        const QFileInfo info(m_file);
        const QString beside = QStringLiteral("%1.%2.%3")
                                   .arg(info.completeBaseName())
                                   .arg(++m_written)
                                   .arg(info.suffix());
        write(info.dir().filePath(beside),
              m_stalled.exchange(false) ? QStringLiteral(", for a handler stalls")
                                        : QStringLiteral(", for SIGUSR1"));
    }
}

// Under m_mutex.
bool TraceFile::write(const QString& file, const QString& why)
{
    const BusTrace trace = CBusMonitor::takeTrace();
    QSaveFile target(file);
    QString error;
    const auto writeTrace = isJson(file) ? lxobserve::writeChromeJson : lxobserve::writePerfetto;
    const bool written =
        target.open(QIODevice::WriteOnly) && writeTrace(trace, target, &error) && target.commit();
    if (!written) {
        ProgressLine::say(
            cannotBeWritten(file, error.isEmpty() ? target.errorString() : error).words());
        return false;
    }
    int records = 0;
    for (const TraceThread& thread : trace.threads)
        records += thread.records.size();
    QString said =
        QStringLiteral("%1: trace of %2 records%3").arg(file, lxclient::grouped(records), why);
    if (trace.overwritten > 0) {
        said += QStringLiteral("; %1 older ones were overwritten (--trace-size)")
                    .arg(lxclient::grouped(static_cast<qint64>(trace.overwritten)));
    }
    ProgressLine::say(said);
    return true;
}

QString TraceFile::wayTable(const QString& traceId)
{
    const BusTrace trace = CBusMonitor::takeTrace();
    const QVector<Hop> way = lxobserve::wayOf(trace, traceId);
    if (way.isEmpty()) {
        QString text = QStringLiteral("No put has the trace ID %1.").arg(traceId);
        if (trace.overwritten > 0) {
            text += QStringLiteral(" But %1 older records were overwritten: --trace-size keeps "
                                   "more.")
                        .arg(lxclient::grouped(static_cast<qint64>(trace.overwritten)));
        }
        return text + QLatin1Char('\n');
    }
    TextTable table({QStringLiteral("Way of ") + traceId, QStringLiteral("At"),
                     QStringLiteral("Wait"), QStringLiteral("Took"), QStringLiteral("Thread")});
    table.alignLeft(4);
    for (const Hop& hop : way) {
        QString took = hop.kind == Hop::Kind::Lost ? QString() : durationText(hop.durationNs);
        if (!hop.finished)
            took = QStringLiteral("unfinished");
        table.addRow({hopText(way, hop), durationText(hop.startNs - way.first().startNs),
                      hop.waitNs < 0 ? QString() : durationText(hop.waitNs), took, hop.thread});
    }
    return table.toString();
}
