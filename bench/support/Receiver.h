// The receiving ends that the benchmarks put to, the same ones for the bus and for its peers.
#ifndef LXBENCH_RECEIVER_H
#define LXBENCH_RECEIVER_H

#include "Bench.h"

#include <condition_variable>
#include <mutex>

#include <atomic>

namespace bench {

// Opens when it has been counted down to zero. `wait` ends the process after the deadline.
class Countdown
{
public:
    explicit Countdown(int count = 0)
        : m_count(count)
    { }

    void reset(int count);
    void countDown();
    void wait(const char* whatFor);

private:
    std::mutex m_mutex;
    std::condition_variable m_zero;
    int m_count; // guarded by m_mutex
};

// A plugin, and an object for queued calls and posted events, that counts what arrives and reports
// when everything has.
class Receiver : public IMessageInterface
{
    Q_OBJECT
public:
    // `done` is counted down after the next `deliveries`. Called while nothing is under way.
    void expect(int deliveries, Countdown& done);

    Q_INVOKABLE void RecvMsg(QString srcId, QVariant type, QVariant data) override;
    void RecvEvent(QString srcId, QVariant type, QVariant data) override;
    void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) override;

protected:
    virtual void arrived(const QVariant& data);

    // Takes an ItemEvent: see Peers.h.
    void customEvent(QEvent* event) override;

private:
    // written by `expect` and by the one thread that delivers, never at the same time
    std::atomic<int> m_left{0};
    Countdown* m_done = nullptr;
};

// A plugin that can be held in its handler, so that its inbox fills: while it is shut, the next
// handler call does not return.
class GatedReceiver : public Receiver
{
    Q_OBJECT
public:
    // Called while the gate is open and nothing is under way. The message that `block` waits for is
    // put by the caller.
    void shut();
    void waitUntilBlocked();
    void open();

protected:
    void arrived(const QVariant& data) override;

private:
    std::atomic<bool> m_shut{false};
    Countdown m_blocked;
    Countdown m_opened;
};

} // namespace bench

#endif
