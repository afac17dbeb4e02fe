// The transports that are measured: what the bus offers, and what one would take instead of it.
//
// Every transport has the same shape. It is made for one receiver, delivers to its RecvMsg on a
// thread of its own, and has been drained when it is destroyed. A producer thread makes itself a
// Port and puts through that. A put takes over a record made with `new`, as the bus does, copies
// what the receiver needs out of it and deletes it.
#ifndef LXBENCH_PEERS_H
#define LXBENCH_PEERS_H

#include "Receiver.h"

#include <lxbase/MessageInterface.h>

#include <lxmsg/MessageCommon.h>

#include <QEvent>
#include <QString>
#include <QThread>
#include <QVariant>

#include <concurrentqueue/concurrentqueue.h>
#include <tbb/concurrent_queue.h>
#include <zmq.hpp>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace bench {

inline const QString senderId = QStringLiteral("Sender");
inline const QString receiverId = QStringLiteral("Receiver");
constexpr int messageType = 1001;

// What the peers queue: the fields of the bus's own item.
struct Item
{
    QString srcId;
    QVariant type;
    QString traceId;
    QVariant data;
};

// The producer's half of the work per message: the same copies that the bus makes.
Item copyOut(const QString& srcId, CMessageCommon& record);

// The consumer's half: the arguments are moved out of the item, as the bus does it.
inline void handOver(IMessageInterface& receiver, Item& item)
{
    receiver.RecvMsg(std::move(item.srcId), std::move(item.type), std::move(item.data));
}

// The bus, direct delivery.
class Bus
{
public:
    static constexpr const char* Name = "bus";

    explicit Bus(Receiver& receiver)
        : m_registration(receiverId, receiver, IMessageInterface::MessageThread)
    { }
    ~Bus() { Registration::deleteRetiredWorkers(); }

    struct Port
    {
        explicit Port(Bus&) { }
        void put(CMessageCommon* record) { CRegManager::Put(senderId, record); }
    };

private:
    Registration m_registration;
};

// How the consumers of the floor and of the queues wait: by the rule of the bus under
// IdlePolicy::Park, for else they would win or lose by their waiting, not by their queues.
class Pace
{
public:
    void count(std::size_t found) { m_found += found; }

    // After an empty look, holding no lock: true if it is time to sleep, else gives way first.
    bool sleepsNext();

private:
    std::size_t m_found = 0; // since the last empty look
    std::size_t m_yields = 1;
    int m_emptyLooks = 0;
};

// The least that a queue between two threads can do: a bare mutex and a vector that is swapped.
// The consumer waits on a condition, which is notified only while it waits.
class Floor
{
public:
    static constexpr const char* Name = "floor";

    explicit Floor(Receiver& receiver);
    ~Floor();

    struct Port
    {
        explicit Port(Floor& floor)
            : m_floor(floor)
        { }
        void put(CMessageCommon* record);

    private:
        Floor& m_floor;
    };

private:
    void append(Item* item);
    void drain(Receiver& receiver);

    std::mutex m_mutex;
    std::condition_variable m_filled;
    std::vector<Item*> m_items; // guarded by m_mutex; a null pointer ends the thread
    bool m_parked = false;      // guarded by m_mutex
    std::thread m_thread;
};

// How the consumer of a queue without a lock waits: it says that it is going to sleep, looks once
// more, and sleeps; a producer that pushed before it looked at the bell has been seen by that look.
class Doorbell
{
public:
    // Called by a producer after its push.
    void ring();

    // Called by the consumer after an empty look. `look` takes what has come meanwhile, true if it
    // found something.
    template<class Look>
    bool lookOrSleep(Look look)
    {
        m_asleep.store(true);
        std::atomic_thread_fence(std::memory_order_seq_cst);
        if (look()) {
            m_asleep.store(false);
            return true;
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        m_rung.wait(lock, [this] { return !m_asleep.load(); });
        return false;
    }

private:
    std::atomic<bool> m_asleep{false};
    std::mutex m_mutex;
    std::condition_variable m_rung;
};

// oneTBB's queue and moodycamel's, of the same items, behind one look.
struct TbbQueue
{
    static constexpr const char* Name = "tbb";
    void push(Item* item) { m_queue.push(item); }
    std::size_t pop(Item** items, std::size_t) { return m_queue.try_pop(*items) ? 1 : 0; }

private:
    tbb::concurrent_queue<Item*> m_queue;
};

struct MoodycamelQueue
{
    static constexpr const char* Name = "moodycamel";
    void push(Item* item) { m_queue.enqueue(item); }
    std::size_t pop(Item** items, std::size_t room)
    {
        return m_queue.try_dequeue_bulk(items, room);
    }

private:
    moodycamel::ConcurrentQueue<Item*> m_queue;
};

template<class Queue>
class QueueTransport
{
public:
    static constexpr const char* Name = Queue::Name;

    explicit QueueTransport(Receiver& receiver)
        : m_thread([this, &receiver] { drain(receiver); })
    { }
    ~QueueTransport()
    {
        push(nullptr);
        m_thread.join();
    }

    struct Port
    {
        explicit Port(QueueTransport& transport)
            : m_transport(transport)
        { }
        void put(CMessageCommon* record)
        {
            const std::unique_ptr<CMessageCommon> owned(record);
            m_transport.push(new Item(copyOut(senderId, *record)));
        }

    private:
        QueueTransport& m_transport;
    };

private:
    void push(Item* item)
    {
        m_queue.push(item);
        m_doorbell.ring();
    }

    void drain(Receiver& receiver)
    {
        constexpr std::size_t room = 256;
        Item* items[room];
        std::size_t found = 0;
        const auto look = [&] { return (found = m_queue.pop(items, room)) > 0; };
        Pace pace;
        for (;;) {
            if (!look() && !(pace.sleepsNext() && m_doorbell.lookOrSleep(look)))
                continue;
            pace.count(found);
            for (std::size_t k = 0; k < found; ++k) {
                const std::unique_ptr<Item> item(items[k]);
                if (!item)
                    return;
                handOver(receiver, *item);
            }
        }
    }

    Queue m_queue;
    Doorbell m_doorbell;
    std::thread m_thread;
};

// A queued call by name to an object that lives in a QThread.
class InvokeMethod
{
public:
    static constexpr const char* Name = "invokeMethod";

    explicit InvokeMethod(Receiver& receiver);
    ~InvokeMethod();

    struct Port
    {
        explicit Port(InvokeMethod& transport)
            : m_receiver(transport.m_receiver)
        { }
        void put(CMessageCommon* record);

    private:
        Receiver& m_receiver;
    };

private:
    Receiver& m_receiver;
    QThread m_thread;
};

// A posted event that carries the item, to an object that lives in a QThread.
struct ItemEvent : QEvent
{
    explicit ItemEvent(Item&& content)
        : QEvent(QEvent::User)
        , item(std::move(content))
    { }
    Item item;
};

class PostEvent
{
public:
    static constexpr const char* Name = "postEvent";

    explicit PostEvent(Receiver& receiver);
    ~PostEvent();

    struct Port
    {
        explicit Port(PostEvent& transport)
            : m_receiver(transport.m_receiver)
        { }
        void put(CMessageCommon* record);

    private:
        Receiver& m_receiver;
    };

private:
    Receiver& m_receiver;
    QThread m_thread;
};

// libzmq inside the process: values serialised by QDataStream, one PUSH socket per producer, no
// high-water mark.
class Zmq
{
public:
    static constexpr const char* Name = "zmq";

    explicit Zmq(Receiver& receiver);
    ~Zmq();

    struct Port
    {
        explicit Port(Zmq& transport);
        void put(CMessageCommon* record);

    private:
        zmq::socket_t m_socket;
    };

private:
    void drain(Receiver& receiver);

    zmq::context_t m_context;
    zmq::socket_t m_pull; // used by m_thread once that runs
    std::thread m_thread;
};

using Tbb = QueueTransport<TbbQueue>;
using Moodycamel = QueueTransport<MoodycamelQueue>;

} // namespace bench

#endif
