// Ledger: several producers put over all paths at once, direct and broadcast, to the net, to
// relation groups, while handlers put again and a further plugin comes and goes. Every delivery is
// booked against a computed expectation: at each receiver each producer's records arrive in order,
// none is missing, none comes twice, and every record and payload that was made is destroyed.
#include "Stress.h"
#include "Traffic.h"

#include <lxbase/MessageCenter.h>

#include <lxdefine/PluginID.h>
#include <lxmsg/MessageCommon.h>
#include <lxtest/Wait.h>

#include <QCoreApplication>

#include <algorithm>
#include <atomic>
#include <memory>
#include <vector>

namespace {

using namespace lxstress;

constexpr int producerCount = 4; // each puts in the name of the receiver of its number
constexpr int receiverCount = 6;
constexpr int netPlugin = receiverCount - 1;
constexpr int queueIndex = receiverCount; // the outside queues book like a receiver
constexpr int nobody = -1;
constexpr quint64 inFlightLimit = 50000;

// Entries are put by a producer or, as an echo of one, by the handler of one of these receivers.
constexpr int echoers[] = {nobody, 0, 3};

const int flags[receiverCount] = {2 | 4 | 8, 2 | 4 | 8, 2 | 8, 4 | 8, 2, 2 | 8};
const int flagOfPath[PathCount] = {2, 2, 4, 8};

// Who subscribed to what, in order; twice is twice.
const std::vector<int> messageSubscribers[] = {{0, 1, 4}, {1, 1, 5, 2}, {3, 0}};
const std::vector<int> eventSubscribers[] = {{0, 3}, {2, 2, 1}, {}};
constexpr int typeCount = 3;

// Relation groups of the common base ID: the colour of each member, for one type of events.
constexpr int relatedType = 1;
const int colorOf[receiverCount] = {0, 6, 0, 6, 0, nobody};

QString idOf(int receiver)
{
    if (receiver == netPlugin)
        return PluginID::PLUGINNET_GLOBALID;
    return receiver == nobody ? QString() : QString("ledger#%1").arg(receiver);
}

// One put of a producer; a function of the seed, the producer and the index alone.
struct Step
{
    Path path;
    int destination; // or nobody: broadcast
    int type;
    bool toNet;
    bool echo;
    int echoTarget;
};

quint64 seed = 0;

Step stepOf(int producer, quint64 index)
{
    static constexpr Path paths[8] = {Direct,    Direct,    Direct, Net,
                                      Quotation, Quotation, Event,  Event};
    const quint64 bits = mixed(seed, quint64(producer), index);
    const auto below = [&](int shift, int limit) { return int(bits >> shift & 0xff) % limit; };
    return {paths[bits & 7],      below(8, 2) ? below(16, receiverCount) : nobody,
            below(24, typeCount), below(32, 2) == 1,
            below(40, 8) == 0,    below(48, receiverCount)};
}

// The expectation: how often `receiver` gets what a producer put in a step.
int copiesOf(const Step& step, int producer, int receiver)
{
    if (receiver == queueIndex)
        return step.path == Net || step.path == Quotation;
    if (!(flags[receiver] & flagOfPath[step.path]))
        return 0;
    if (step.destination != nobody)
        return step.destination == receiver;
    const bool fromNet = step.path == Net || step.path == Quotation;
    int copies = 0;
    if (fromNet || receiver != producer) {
        const auto& subscribers =
            (step.path == Event ? eventSubscribers : messageSubscribers)[step.type];
        copies += int(std::count(subscribers.begin(), subscribers.end(), receiver));
        if (step.path == Event && step.type == relatedType)
            copies += colorOf[receiver] == colorOf[producer];
    }
    if (step.path == Direct && step.toNet && receiver == netPlugin)
        ++copies;
    return copies;
}

// How often `receiver` gets what `echoer` puts when it handles a step. It puts on the path on which
// it received; what came through the net path it sends on directly.
int copiesOf(const Step& step, int producer, int echoer, int receiver)
{
    if (echoer == nobody)
        return copiesOf(step, producer, receiver);
    const bool reaches = receiver == queueIndex
        ? step.path == Quotation
        : receiver == step.echoTarget && (flags[receiver] & flagOfPath[step.path]);
    return step.echo && reaches ? copiesOf(step, producer, echoer) : 0;
}

quint64 allCopiesOf(const Step& step, int producer)
{
    int copies = 0;
    for (int receiver = 0; receiver <= queueIndex; ++receiver) {
        for (const int echoer : echoers)
            copies += copiesOf(step, producer, echoer, receiver);
    }
    return quint64(copies);
}

quint64 stepCounts[producerCount];
std::atomic<quint64> due{0};
std::atomic<quint64> booked{0};

// The payload of every record.
struct Entry : lxtest::CountedPayload
{
    int producer = 0;
    int echoer = nobody;
    quint64 index = 0;
};

// What one receiver still expects of one producer (or echo of it) on one path. Touched by the one
// thread that handles the path there, and read when that has ended.
struct Page
{
    int receiver, path, producer, echoer;

    quint64 scanned = 0; // steps
    quint64 next = 0;    // the step of which ...
    int copies = 0;      // ... so many are still due

    // To the next step of which copies are due.
    void advance()
    {
        for (; copies == 0 && scanned < stepCounts[producer]; ++scanned) {
            const Step step = stepOf(producer, scanned);
            if (step.path == path) {
                copies = copiesOf(step, producer, echoer, receiver);
                next = scanned;
            }
        }
    }

    void report(const char* what, quint64 index) const
    {
        fail("receiver %d, path %d, producer %d, echoed by %d: %s %llu (%llu is due %d times)",
             receiver, path, producer, echoer, what, index, next, copies);
    }
};

class Book
{
public:
    explicit Book(int receiver)
    {
        for (int path = 0; path < PathCount; ++path) {
            for (int producer = 0; producer < producerCount; ++producer) {
                for (const int echoer : echoers)
                    m_pages.push_back({receiver, path, producer, echoer});
            }
        }
    }

    // Returns the step that the entry belongs to.
    Step book(const Entry& entry, const QVariant& type)
    {
        const Step step = stepOf(entry.producer, entry.index);
        if (type.toInt() != step.type)
            fail("a record of type %d came as %d", step.type, type.toInt());
        Page& page = *std::find_if(m_pages.begin(), m_pages.end(), [&](const Page& candidate) {
            return candidate.path == step.path && candidate.producer == entry.producer
                && candidate.echoer == entry.echoer;
        });
        page.advance();
        if (page.copies > 0 && page.next == entry.index)
            --page.copies;
        else
            page.report("got", entry.index);
        ++booked;
        return step;
    }

    void close()
    {
        for (Page& page : m_pages) {
            page.advance();
            if (page.copies > 0)
                page.report("never got", page.next);
        }
    }

private:
    std::vector<Page> m_pages;
};

class BookingReceiver final : public Receiver
{
public:
    explicit BookingReceiver(int index)
        : m_index(index)
        , m_book(index)
    {
        Reg(idOf(index), this, ThreadType(flags[index]));
    }

    void leave()
    {
        UnReg(idOf(m_index));
        m_book.close();
    }

private:
    void receive(Path path, const QString& srcId, const QVariant& type,
                 const QVariant& data) override
    {
        auto entry = data.value<Entry>();
        const Step step = m_book.book(entry, type);
        const bool isEcho = entry.echoer != nobody;
        const Path echoPath = step.path == Net ? Direct : step.path;
        const bool fromNet = step.path == Quotation || (step.path == Net && !isEcho);
        const QString sender = idOf(fromNet ? netPlugin : isEcho ? entry.echoer : entry.producer);
        if (path != echoPath || srcId != sender) {
            fail("a record of path %d of %s came by path %d as from %s", step.path,
                 qPrintable(sender), path, qPrintable(srcId));
        }
        const bool echoes =
            std::find(std::begin(echoers), std::end(echoers), m_index) != std::end(echoers);
        if (isEcho || !step.echo || !echoes)
            return;
        entry.echoer = m_index;
        put(echoPath, idOf(m_index), idOf(step.echoTarget), step.type, QVariant::fromValue(entry));
    }

    const int m_index;
    Book m_book;
};

void produce(int producer)
{
    Entry entry;
    entry.producer = producer;
    for (; entry.index < stepCounts[producer]; ++entry.index) {
        const Step step = stepOf(producer, entry.index);
        while (due > booked + inFlightLimit) // more may be booked than is due, if the bus is wrong
            std::this_thread::yield();
        due += allCopiesOf(step, producer);
        put(step.path, idOf(producer), idOf(step.destination), step.type,
            QVariant::fromValue(entry), step.toNet);
    }
}

// A plugin that comes and goes among the others; what it gets is nobody's expectation.
class PasserBy final : public Receiver
{
public:
    void visit()
    {
        const QString id = "ledger#passer";
        const int before = m_received;
        join(id, 0);
        for (int type = 1; type < typeCount; ++type) {
            Sub(id, type, 1);
            SubEvent(id, type, 1);
        }
        setRelation("ledger", id, relatedType, RELATION_VIOLET, 1);
        for (int patience = 0; m_received < before + 10 && patience < 1000; ++patience)
            std::this_thread::yield();
        setRelation("ledger", id, relatedType, RELATION_VIOLET, 2);
        UnReg(id);
        lxtest::runDeferredDeletes();
    }

private:
    void receive(Path, const QString&, const QVariant&, const QVariant&) override { ++m_received; }

    std::atomic<int> m_received{0};
};

quint64 planSteps(quint64 deliveries)
{
    quint64 total = 0;
    for (int producer = 0; producer < producerCount; ++producer) {
        for (quint64& steps = stepCounts[producer];
             total * producerCount < deliveries * quint64(producer + 1); ++steps)
            total += allCopiesOf(stepOf(producer, steps), producer);
    }
    return total;
}

void subscribeAndRelate()
{
    for (int type = 0; type < typeCount; ++type) {
        for (const int receiver : messageSubscribers[type])
            CRegManager::Sub(idOf(receiver), type, 1);
        for (const int receiver : eventSubscribers[type])
            CRegManager::SubEvent(idOf(receiver), type, 1);
    }
    for (int receiver = 0; receiver < receiverCount; ++receiver) {
        if (colorOf[receiver] != nobody) {
            CRegManager::setRelation("ledger", idOf(receiver), relatedType,
                                     RelationColor_t(colorOf[receiver]), 1);
        }
    }
}

void drain(CMessageCenter::MessageQueue& queue, Book& book)
{
    QSharedPointer<CMessageCommon> message;
    while (queue.try_pop(message)) {
        book.book(message->GetMsg().value<Entry>(), message->GetType());
        message.reset();
    }
}

} // namespace

Q_DECLARE_METATYPE(Entry)

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const Options options("Books every delivery of a mixed load against a computed expectation.",
                          {{"deliveries", "How many, in all.", "number", "200000"},
                           {"long", "Ten million deliveries."}});
    seed = options.number("seed");
    const quint64 planned =
        planSteps(options.isSet("long") ? 10000000 : options.number("deliveries"));

    CMessageCenter::MessageQueue netQueue;
    CMessageCenter::MessageQueue quotationQueue;
    Book queueBook(queueIndex);
    auto* const center = CMessageCenter::GetInstance();
    center->regNetMsgQueue(&netQueue);
    center->regQuotationQueue(&quotationQueue);
    center->Start();

    std::vector<std::unique_ptr<BookingReceiver>> receivers;
    for (int receiver = 0; receiver < receiverCount; ++receiver)
        receivers.push_back(std::make_unique<BookingReceiver>(receiver));
    subscribeAndRelate();

    std::atomic<bool> producersDone{false};
    std::atomic<bool> allBooked{false};
    int visits = 0;
    {
        const Joined drainer([&] {
            for (; !allBooked; std::this_thread::yield()) {
                drain(netQueue, queueBook);
                drain(quotationQueue, queueBook);
            }
        });
        const Joined passer([&] {
            for (PasserBy plugin; !producersDone; ++visits)
                plugin.visit();
        });
        {
            std::vector<Joined> producers;
            for (int producer = 0; producer < producerCount; ++producer)
                producers.emplace_back(produce, producer);
        }
        producersDone = true;
        waitForRecords([] { return booked.load(); });
        allBooked = true;
    }
    center->regNetMsgQueue(nullptr);
    center->regQuotationQueue(nullptr);
    for (const auto& receiver : receivers)
        receiver->leave();
    queueBook.close();
    if (booked != planned)
        fail("%llu deliveries planned, %llu booked", planned, booked.load());
    return verdict(QString("%1 deliveries of %2 messages and %3 events, as expected; a further "
                           "plugin came and went %4 times")
                       .arg(booked.load())
                       .arg(lxtest::CountedMessage::made())
                       .arg(lxtest::CountedEvent::made())
                       .arg(visits));
}
