#include "Tap.h"

#include "ProgressLine.h"

#include <lxclient/Accounts.h>
#include <lxmsg/MessageCommon.h>

#include <algorithm>
#include <chrono>

using lxclient::Error;
using lxclient::Quote;
namespace account = lxclient::account;
namespace counted = lxclient::counted;

Tap::Tap() = default;

Tap::~Tap()
{
    stop();
}

Error Tap::recordTo(const QString& fileName)
{
    m_recording = std::make_unique<RecordingWriter>();
    return m_recording->open(fileName);
}

void Tap::start(const QStringList& symbols, const Pace& pace)
{
    m_pace = pace;
    m_audit.expect(symbols);
    auto* const center = CMessageCenter::GetInstance();
    center->regNetMsgQueue(&m_net_queue);
    center->regQuotationQueue(&m_quotation_queue);
    m_thread = std::thread([this] { listen(); });
}

void Tap::stop()
{
    if (!m_thread.joinable())
        return;
    auto* const center = CMessageCenter::GetInstance();
    center->regNetMsgQueue(nullptr);
    center->regQuotationQueue(nullptr);
    m_stop = true;
    m_thread.join();
}

lxclient::Report Tap::report() const
{
    lxclient::Report report;
    const QMutexLocker locker(&m_mutex);
    m_audit.post(report);
    report.messages = m_acknowledged + m_executed;
    report.post(account::Orders, counted::Acknowledged, m_acknowledged);
    report.post(account::Orders, counted::Executed, m_executed);
    if (m_recording_error)
        report.faults.append(m_recording_error.words());
    return report;
}

quint64 Tap::recorded() const
{
    const QMutexLocker locker(&m_mutex);
    return m_recorded;
}

Tap::Progress Tap::progress() const
{
    const QMutexLocker locker(&m_mutex);
    return {m_audit.total(), m_time_ms, m_due_s};
}

// The queues cannot be waited on, so an idle tap looks every millisecond. After a pause in the
// quotes the recording on disk is complete.
void Tap::listen()
{
    bool unflushed = false;
    for (;;) {
        const bool last = m_stop; // read before the drain that then finds everything
        if (drainOnce()) {
            unflushed = true;
            continue;
        }
        if (m_recording && unflushed)
            noteRecording(m_recording->flush());
        unflushed = false;
        if (last)
            return;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

// False: there was nothing.
bool Tap::drainOnce()
{
    bool any = false;
    QSharedPointer<CMessageCommon> msg;
    while (m_quotation_queue.try_pop(msg) || m_net_queue.try_pop(msg)) {
        any = true;
        if (msg)
            hear(*msg);
    }
    return any;
}

void Tap::hear(CMessageCommon& msg)
{
    const int type = msg.GetType().toInt();
    if (type == lxclient::AcknowledgementType || type == lxclient::ExecutionType) {
        const QMutexLocker locker(&m_mutex);
        ++(type == lxclient::ExecutionType ? m_executed : m_acknowledged);
        return;
    }
    const QVariant payload = msg.GetMsg();
    if (payload.userType() != qMetaTypeId<Quote>())
        return;
    const auto quote = payload.value<Quote>();
    if (m_recording)
        noteRecording(m_recording->write(quote));
    ++*m_heard;
    const QMutexLocker locker(&m_mutex);
    if (m_audit.total() == 0)
        m_time_ms = quote.time_ms;
    const qint64 gap_ms = std::max<qint64>(quote.time_ms - m_time_ms, 0);
    const double pause_s = m_pace.speed > 0 ? static_cast<double>(gap_ms) / m_pace.speed / 1e3 : 0;
    if (!m_pace.skip_gaps_s || pause_s <= *m_pace.skip_gaps_s)
        m_due_s += pause_s;
    m_time_ms += gap_ms;
    m_audit.count(quote);
}

// Says at once that the recording has ended too early; it does not go on again.
void Tap::noteRecording(const Error& error)
{
    const quint64 recorded = m_recording->written();
    bool isNew = false;
    {
        const QMutexLocker locker(&m_mutex);
        isNew = error && !m_recording_error;
        m_recorded = recorded;
        m_recording_error = error;
    }
    if (isNew) {
        ProgressLine::say(
            QStringLiteral("%1; the recording ends after %2 quotes")
                .arg(error.words(), lxclient::grouped(static_cast<qint64>(recorded))));
    }
}
