// Ledger: several producers put over all paths at once, direct and broadcast, to the net, to
// relation groups, while handlers put again and a further plugin comes and goes. Every delivery is
// booked against a computed expectation: at each receiver each producer's records arrive in order,
// none is missing, none comes twice, and every record and payload that was made is destroyed.
#include "Stress.h"

#include <lxbase/MessageCenter.h>

#include <lxdefine/PluginID.h>
#include <lxtest/Counted.h>
#include <lxtest/Wait.h>

#include <QCoreApplication>

#include <array>
#include <atomic>
#include <memory>
#include <vector>

namespace {

using lxstress::fail;
using lxstress::mixed;
using lxtest::CountedEvent;
using lxtest::CountedMessage;

constexpr int producerCount = 4;
constexpr int receiverCount = 6;          // the last is the net plugin
constexpr int queueIndex = receiverCount; // the outside queues book like a receiver
constexpr int nobody = -1;
constexpr std::uint64_t inFlightLimit = 50000;

enum Path { Direct, Net, Quotation, Event, PathCount };

// Entries are put by a producer or, as an echo of one, by the handler of one of these receivers.
constexpr int echoers[] = {nobody, 0, 3};
constexpr int echoerCount = 3;

const int flags[receiverCount] = {2 | 4 | 8, 2 | 4 | 8, 2 | 8, 4 | 8, 2, 2 | 8};
const int flagOfPath[PathCount] = {2, 2, 4, 8};

// Who subscribed to what, in order; twice is twice.
const std::array<std::vector<int>, 3> messageSubscribers{{{0, 1, 4}, {1, 1, 5, 2}, {3, 0}}};
const std::array<std::vector<int>, 3> eventSubscribers{{{0, 3}, {2, 2, 1}, {}}};
constexpr int typeCount = 3;
// Relation groups of the common base ID: the colour of each member, for one type of events.
constexpr int relatedType = 1;
const int colorOf[receiverCount] = {0, 6, 0, 6, 0, nobody};

QString idOf(int receiver)
{
    return receiver == receiverCount - 1 ? PluginID::PLUGINNET_GLOBALID
                                         : QStringLiteral("ledger#%1").arg(receiver);
}
// A producer puts in the name of a receiver, so that the rules about the sender count.
int senderOf(int producer)
{
    return producer;
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

std::uint64_t seed = 0;

Step stepOf(int producer, std::uint64_t index)
{
    static constexpr Path paths[8] = {Direct,    Direct,    Direct, Net,
                                      Quotation, Quotation, Event,  Event};
    const std::uint64_t bits = mixed(seed, std::uint64_t(producer), index);
    Step step;
    step.path = paths[bits & 7];
    step.destination = (bits >> 8 & 1) ? int((bits >> 16 & 0xff) % receiverCount) : nobody;
    step.type = int((bits >> 24 & 0xff) % typeCount);
    step.toNet = bits >> 32 & 1;
    step.echo = (bits >> 40 & 7) == 0;
    step.echoTarget = int((bits >> 48 & 0xff) % receiverCount);
    return step;
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
    const bool skipsSender = step.path == Direct || step.path == Event;
    const int sender = senderOf(producer);
    int copies = 0;
    if (!skipsSender || receiver != sender) {
        const auto& subscribers = step.path == Event ? eventSubscribers : messageSubscribers;
        for (const int subscriber : subscribers[std::size_t(step.type)])
            copies += subscriber == receiver;
        if (step.path == Event && step.type == relatedType && colorOf[sender] != nobody
            && receiver != sender)
            copies += colorOf[receiver] == colorOf[sender];
    }
    if (step.path == Direct && step.toNet && receiver == receiverCount - 1)
        ++copies;
    return copies;
}

// How often `receiver` gets what `echoer` puts when it handles a step. It puts on the path on which
// it received; what came through the net path it sends on directly.
int echoesOf(const Step& step, int producer, int echoer, int receiver)
{
    if (!step.echo)
        return 0;
    const int puts = copiesOf(step, producer, echoer);
    if (receiver == queueIndex)
        return step.path == Quotation ? puts : 0;
    return receiver == step.echoTarget && (flags[receiver] & flagOfPath[step.path]) ? puts : 0;
}

int copiesOf(const Step& step, int producer, int echoer, int receiver)
{
    return echoer == nobody ? copiesOf(step, producer, receiver)
                            : echoesOf(step, producer, echoer, receiver);
}

int allCopiesOf(const Step& step, int producer)
{
    int copies = 0;
    for (int receiver = 0; receiver <= queueIndex; ++receiver) {
        for (const int echoer : echoers)
            copies += copiesOf(step, producer, echoer, receiver);
    }
    return copies;
}

std::array<std::uint64_t, producerCount> stepCounts;
std::atomic<std::uint64_t> due{0};
std::atomic<std::uint64_t> booked{0};

// The payload of every record.
struct Entry : lxtest::CountedPayload
{
    int producer = 0;
    int echoer = 0; // index into echoers
    std::uint64_t index = 0;
};

// What one receiver still expects of one producer (or echo of it) on one path. The pages of a path
// are touched by the one thread that handles it, and read when that has ended.
class Page
{
public:
    void open(int receiver, Path path, int producer, int echoer)
    {
        m_receiver = receiver;
        m_path = path;
        m_producer = producer;
        m_echoer = echoer;
    }

    void book(std::uint64_t index)
    {
        advance();
        if (index != m_next || m_copies == 0) {
            fail(QStringLiteral("%1: got %2, expected %3")
                     .arg(name())
                     .arg(index)
                     .arg(m_copies ? QString::number(m_next) : QStringLiteral("nothing")));
            return;
        }
        --m_copies;
    }

    void close()
    {
        advance();
        if (m_copies != 0)
            fail(QStringLiteral("%1: %2 never came").arg(name()).arg(m_next));
    }

private:
    // To the next step of which copies are due.
    void advance()
    {
        while (m_copies == 0 && m_scanned < stepCounts[std::size_t(m_producer)]) {
            const Step step = stepOf(m_producer, m_scanned);
            if (step.path == m_path) {
                m_copies = copiesOf(step, m_producer, m_echoer, m_receiver);
                m_next = m_scanned;
            }
            ++m_scanned;
        }
    }

    QString name() const
    {
        return QStringLiteral("receiver %1, path %2, producer %3, echoed by %4")
            .arg(m_receiver)
            .arg(m_path)
            .arg(m_producer)
            .arg(m_echoer);
    }

    int m_receiver = 0;
    Path m_path = Direct;
    int m_producer = 0;
    int m_echoer = nobody;
    std::uint64_t m_scanned = 0;
    std::uint64_t m_next = 0;
    int m_copies = 0;
};

class Book
{
public:
    explicit Book(int receiver)
    {
        for (int path = 0; path < PathCount; ++path) {
            for (int producer = 0; producer < producerCount; ++producer) {
                for (int echoer = 0; echoer < echoerCount; ++echoer)
                    page(Path(path), producer, echoer)
                        .open(receiver, Path(path), producer, echoers[echoer]);
            }
        }
    }

    // Returns the step that the entry belongs to.
    Step book(const Entry& entry, const QVariant& type)
    {
        const Step step = stepOf(entry.producer, entry.index);
        if (type.toInt() != step.type)
            fail(QStringLiteral("a record of type %1 came as %2").arg(step.type).arg(type.toInt()));
        page(step.path, entry.producer, entry.echoer).book(entry.index);
        ++booked;
        return step;
    }

    void close()
    {
        for (Page& page : m_pages)
            page.close();
    }

private:
    Page& page(Path path, int producer, int echoer)
    {
        return m_pages[std::size_t((path * producerCount + producer) * echoerCount + echoer)];
    }

    std::array<Page, PathCount * producerCount * echoerCount> m_pages;
};

void put(Path path, const QString& srcId, const QString& dstId, int type, bool toNet,
         const Entry& entry)
{
    const QVariant payload = QVariant::fromValue(entry);
    if (path == Event) {
        CRegManager::PutEvent(srcId, new CountedEvent(srcId, dstId, type, payload));
        return;
    }
    auto* const message = new CountedMessage(srcId, dstId, type, payload);
    message->SetSendToNetFlag(toNet);
    switch (path) {
    case Net:
        CRegManager::PutNetMsg(srcId, message);
        break;
    case Quotation:
        CRegManager::PutQuotationMsg(srcId, message);
        break;
    default:
        CRegManager::Put(srcId, message);
    }
}

class Receiver final : public IMessageInterface
{
public:
    explicit Receiver(int index)
        : m_index(index)
        , m_id(idOf(index))
        , m_book(index)
    {
        for (int echoer = 1; echoer < echoerCount; ++echoer) {
            if (echoers[echoer] == index)
                m_echoer = echoer;
        }
        Reg(m_id, this, ThreadType(flags[index]));
    }

    void leave() { UnReg(m_id); }
    void close() { m_book.close(); }

    void RecvMsg(QString srcId, QVariant type, QVariant data) override { take(srcId, type, data); }
    void RecvEvent(QString srcId, QVariant type, QVariant data) override
    {
        take(srcId, type, data);
    }
    void RecvQuotationMsg(QString srcId, QVariant type, QVariant data) override
    {
        take(srcId, type, data);
    }

private:
    void take(const QString& srcId, const QVariant& type, const QVariant& data)
    {
        const auto entry = data.value<Entry>();
        const Step step = m_book.book(entry, type);
        const bool isEcho = echoers[entry.echoer] != nobody;
        const int sender = isEcho ? echoers[entry.echoer] : senderOf(entry.producer);
        const bool fromNet = step.path == Quotation || (step.path == Net && !isEcho);
        if (srcId != (fromNet ? PluginID::PLUGINNET_GLOBALID : idOf(sender)))
            fail(QStringLiteral("a record of %1 came as from %2").arg(idOf(sender), srcId));
        if (!m_echoer || isEcho || !step.echo)
            return;
        Entry echo = entry;
        echo.echoer = m_echoer;
        put(step.path == Net ? Direct : step.path, m_id, idOf(step.echoTarget), step.type, false,
            echo);
    }

    const int m_index;
    const QString m_id;
    Book m_book;
    int m_echoer = 0; // 0: none
};

void produce(int producer)
{
    const QString srcId = idOf(senderOf(producer));
    for (std::uint64_t index = 0; index < stepCounts[std::size_t(producer)]; ++index) {
        const Step step = stepOf(producer, index);
        while (due - booked > inFlightLimit)
            std::this_thread::yield();
        due += std::uint64_t(allCopiesOf(step, producer));
        Entry entry;
        entry.producer = producer;
        entry.index = index;
        put(step.path, srcId, step.destination == nobody ? QString() : idOf(step.destination),
            step.type, step.toNet, entry);
    }
}

// A plugin that comes and goes among the others; what it gets is nobody's expectation.
class PasserBy final : public IMessageInterface
{
public:
    void visit()
    {
        const QString id = QStringLiteral("ledger#passer");
        const int before = m_received;
        Reg(id, this, ThreadType(2 | 4 | 8));
        for (int type = 0; type < typeCount; ++type) {
            Sub(id, type, 1);
            SubEvent(id, type, 1);
        }
        setRelation(QStringLiteral("ledger"), id, relatedType, RELATION_VIOLET, 1);
        for (int patience = 0; m_received < before + 10 && patience < 1000; ++patience)
            std::this_thread::yield();
        setRelation(QStringLiteral("ledger"), id, relatedType, RELATION_VIOLET, 2);
        UnReg(id);
        lxtest::runDeferredDeletes();
    }

    void RecvMsg(QString, QVariant, QVariant) override { ++m_received; }
    void RecvEvent(QString, QVariant, QVariant) override { ++m_received; }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { ++m_received; }

private:
    std::atomic<int> m_received{0};
};

std::uint64_t planSteps(std::uint64_t deliveries)
{
    std::uint64_t total = 0;
    for (int producer = 0; producer < producerCount; ++producer) {
        std::uint64_t& steps = stepCounts[std::size_t(producer)];
        for (std::uint64_t own = 0; own < deliveries / producerCount; ++steps) {
            const auto copies = std::uint64_t(allCopiesOf(stepOf(producer, steps), producer));
            own += copies;
            total += copies;
        }
    }
    return total;
}

void subscribeAndRelate()
{
    for (int type = 0; type < typeCount; ++type) {
        for (const int receiver : messageSubscribers[std::size_t(type)])
            CRegManager::Sub(idOf(receiver), type, 1);
        for (const int receiver : eventSubscribers[std::size_t(type)])
            CRegManager::SubEvent(idOf(receiver), type, 1);
    }
    for (int receiver = 0; receiver < receiverCount; ++receiver) {
        if (colorOf[receiver] != nobody) {
            CRegManager::setRelation(QStringLiteral("ledger"), idOf(receiver), relatedType,
                                     RelationColor_t(colorOf[receiver]), 1);
        }
    }
}

void drainQueues(CMessageCenter::MessageQueue& net, CMessageCenter::MessageQueue& quotations,
                 Book& book, const std::atomic<bool>& stop)
{
    QSharedPointer<CMessageCommon> message;
    while (!stop) {
        bool idle = true;
        for (auto* const queue : {&net, &quotations}) {
            while (queue->try_pop(message)) {
                book.book(message->GetMsg().value<Entry>(), message->GetType());
                message.reset();
                idle = false;
            }
        }
        if (idle)
            std::this_thread::yield();
    }
}

} // namespace

Q_DECLARE_METATYPE(Entry)

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const lxstress::Options options(
        "Books every delivery of a mixed load against a computed expectation.",
        {{QStringLiteral("deliveries"), QStringLiteral("How many, in all."),
          QStringLiteral("number"), QStringLiteral("200000")},
         {QStringLiteral("long"), QStringLiteral("Ten million deliveries.")}});
    seed = options.seed();
    const std::uint64_t planned =
        planSteps(options.isSet("long") ? 10000000 : options.number("deliveries"));

    CMessageCenter::MessageQueue netQueue;
    CMessageCenter::MessageQueue quotationQueue;
    Book queueBook(queueIndex);
    auto* const center = CMessageCenter::GetInstance();
    center->regNetMsgQueue(&netQueue);
    center->regQuotationQueue(&quotationQueue);
    center->Start();

    std::vector<std::unique_ptr<Receiver>> receivers;
    for (int receiver = 0; receiver < receiverCount; ++receiver)
        receivers.push_back(std::make_unique<Receiver>(receiver));
    subscribeAndRelate();

    std::atomic<bool> producersDone{false};
    std::atomic<bool> allBooked{false};
    int visits = 0;
    {
        const lxstress::Joined drainer(
            [&] { drainQueues(netQueue, quotationQueue, queueBook, allBooked); });
        const lxstress::Joined passer([&] {
            for (PasserBy plugin; !producersDone; ++visits)
                plugin.visit();
        });
        {
            std::vector<lxstress::Joined> producers;
            for (int producer = 0; producer < producerCount; ++producer)
                producers.emplace_back([producer] { produce(producer); });
        }
        producersDone = true;
        lxstress::waitFor(
            "every record and payload to be handled and destroyed",
            [] {
                return CountedMessage::alive() == 0 && CountedEvent::alive() == 0
                    && lxtest::CountedPayload::alive() == 0;
            },
            [] { return booked.load(); });
        allBooked = true;
    }
    for (const auto& receiver : receivers)
        receiver->leave();
    center->regNetMsgQueue(nullptr);
    center->regQuotationQueue(nullptr);

    for (const auto& receiver : receivers)
        receiver->close();
    queueBook.close();
    if (due != planned || booked != planned)
        fail(QStringLiteral("%1 deliveries planned, %2 due, %3 booked")
                 .arg(planned)
                 .arg(due.load())
                 .arg(booked.load()));
    return lxstress::verdict(QStringLiteral("%1 deliveries of %2 messages and %3 events, as "
                                            "expected; a further plugin came and went %4 times")
                                 .arg(booked.load())
                                 .arg(CountedMessage::made())
                                 .arg(CountedEvent::made())
                                 .arg(visits));
}
