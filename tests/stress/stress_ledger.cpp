// Ledger: several producers put over all paths at once, direct and broadcast, to the net, to
// relation groups, while handlers put again, a further plugin comes and goes, and one receiver
// stays long in its first calls. Every record says how much of it each receiver is due, behind how
// much that came before on the same way: everything arrives in order, nothing is missing, nothing
// comes twice, and every record and payload that was made is destroyed.
#include "Stress.h"

#include <lxdefine/PluginID.h>
#include <lxtest/TestMain.h>

#include <QCommandLineParser>
#include <QLoggingCategory>

#include <algorithm>
#include <future>
#include <random>
#include <vector>

namespace {

using namespace lxstress;
using namespace lxtest;

constexpr int producerCount = 4; // each puts in the name of the receiver of its number
constexpr int receiverCount = 6;
constexpr int netPlugin = receiverCount - 1;
constexpr int slow = 3; // stays in its first calls until so much has been booked
constexpr quint64 slowUntil = 30000;
constexpr int outside = receiverCount; // the outside queue books like a receiver
constexpr int bookCount = receiverCount + 1;
constexpr int nobody = -1;
constexpr quint64 inFlightLimit = 50000;

constexpr Kind kindOf[PathCount] = {M, M, Q, E};
constexpr int typeCount = 3;

// Each may be in a relation group of the common base ID, for one type of events.
constexpr int relatedType = 1;
const struct
{
    Kind kinds;
    bool putsAgain;            // from its handlers
    std::vector<int> messages; // the types to which it subscribes; twice is twice
    std::vector<int> events;
    int color;
} traits[receiverCount] = {
    {All, true, {0, 2}, {0}, RELATION_RED},    {All, false, {0, 1, 1}, {1}, RELATION_VIOLET},
    {M | E, false, {1}, {1, 1}, RELATION_RED}, {Q | E, true, {2}, {0}, RELATION_VIOLET},
    {M, false, {0}, {}, RELATION_RED},         {M | E, false, {1}, {}, nobody},
};

QString idOf(int receiver)
{
    if (receiver == netPlugin)
        return PluginID::PLUGINNET_GLOBALID;
    return receiver == nobody ? QString() : QString("ledger#%1").arg(receiver);
}

// The payload of every record.
struct Entry : CountedPayload
{
    int putter = 0;      // the receiver in whose name it is put ...
    bool isEcho = false; // ... by a handler of his, because of another entry
    Path path = Direct;
    int type = 0;
    int echoTarget = nobody; // to whom a handler that receives this puts it again

    // What each book gets of it: from the first number to before the second.
    std::pair<quint64, quint64> due[bookCount];

    // What keeps its order: put by one thread, and handled by one at each receiver.
    static constexpr int wayCount = receiverCount * 2 * PathCount;
    int way() const { return (putter * 2 + isEcho) * PathCount + path; }
};

// Each number belongs to the one thread that puts on the way, or that handles it at the receiver.
quint64 sent[bookCount][Entry::wayCount] = {};
quint64 arrived[bookCount][Entry::wayCount] = {};

std::atomic<quint64> due{0};
std::atomic<quint64> booked{0};

// The expectation: how often `receiver` gets what is put so.
quint64 copiesFor(int receiver, const Entry& entry, int destination, bool toNet)
{
    const bool fromNet = entry.path == Net || entry.path == Quotation;
    if (receiver == outside)
        return fromNet;
    if (!(traits[receiver].kinds & kindOf[entry.path]))
        return 0;
    if (destination != nobody)
        return destination == receiver;
    quint64 copies = entry.path == Direct && toNet && receiver == netPlugin;
    if (fromNet || receiver != entry.putter) {
        const auto& types =
            entry.path == Event ? traits[receiver].events : traits[receiver].messages;
        copies += quint64(std::count(types.begin(), types.end(), entry.type));
        if (entry.path == Event && entry.type == relatedType)
            copies += traits[receiver].color == traits[entry.putter].color;
    }
    return copies;
}

// Returns how many deliveries are due.
quint64 putEntry(Entry entry, int destination, bool toNet)
{
    quint64 copies = 0;
    for (int receiver = 0; receiver < bookCount; ++receiver) {
        quint64& number = sent[receiver][entry.way()];
        const quint64 more = copiesFor(receiver, entry, destination, toNet);
        entry.due[receiver] = {number, number + more};
        number += more;
        copies += more;
    }
    due += copies;
    put(entry.path, idOf(entry.putter), idOf(destination), entry.type, QVariant::fromValue(entry),
        toNet);
    return copies;
}

void book(int receiver, const Entry& entry, const QVariant& type)
{
    quint64& number = arrived[receiver][entry.way()];
    const auto [begin, end] = entry.due[receiver];
    if (number < begin || number >= end) {
        qFatal("receiver %d, way %d: number %llu was due, %llu to before %llu came", receiver,
               entry.way(), number, begin, end);
    }
    if (type != entry.type)
        qFatal("type %d came as %d", entry.type, type.toInt());
    ++number;
    ++booked;
}

class BookingReceiver final : public Handler
{
public:
    BookingReceiver(int index)
        : m_index(index)
    {
        const QString id = idOf(index);
        Reg(id, this, traits[index].kinds);
        for (const int type : traits[index].messages)
            Sub(id, type, 1);
        for (const int type : traits[index].events)
            SubEvent(id, type, 1);
        if (traits[index].color != nobody)
            setRelation("ledger", id, relatedType, RelationColor_t(traits[index].color), 1);
    }
    ~BookingReceiver() override { UnReg(idOf(m_index)); }

private:
    void handle(const Call& call) override
    {
        if (m_index == slow)
            waitFor("the others to be served meanwhile", [] { return booked >= slowUntil; });
        auto entry = call.data.value<Entry>();
        const bool fromNet = entry.path == Net || entry.path == Quotation;
        const QString sender = idOf(fromNet ? netPlugin : entry.putter);
        if (call.kind != kindOf[entry.path] || call.srcId != sender) {
            qFatal("path %d of %s came as of kind %d from %s", entry.path, qPrintable(sender),
                   call.kind, qPrintable(call.srcId));
        }
        book(m_index, entry, call.type);
        if (entry.isEcho || entry.echoTarget == nobody || !traits[m_index].putsAgain)
            return;
        entry.putter = m_index;
        entry.isEcho = true;
        if (entry.path == Net)
            entry.path = Direct;
        putEntry(entry, entry.echoTarget, false);
    }

    const int m_index;
};

void produce(int producer, quint64 seed, quint64 deliveries)
{
    static constexpr Path paths[] = {Direct,    Direct,    Direct, Net,
                                     Quotation, Quotation, Event,  Event};
    std::mt19937_64 random(seed + quint64(producer));
    const auto below = [&](int limit) { return int(random() % quint64(limit)); };
    for (quint64 made = 0; made < deliveries;) {
        waitFor("what is in flight to arrive", [] { return due < booked + inFlightLimit; });
        Entry entry;
        entry.putter = producer;
        entry.path = paths[below(8)];
        entry.type = below(typeCount);
        entry.echoTarget = below(8) == 0 ? below(receiverCount) : nobody;
        const int destination = below(2) == 0 ? below(receiverCount) : nobody;
        made += putEntry(entry, destination, below(2) == 0);
    }
}

// A plugin comes and goes among the others; what it gets is nobody's expectation.
void passBy()
{
    Plugin plugin("ledger#passer", All);
    plugin.subscribe(0);
    plugin.subscribeEvent(0);
    for (const int oper : {1, 2}) {
        CRegManager::setRelation("ledger", plugin.id(), relatedType, RELATION_VIOLET, oper);
        for (int patience = 1000; plugin.count() < 10 && patience > 0; --patience)
            std::this_thread::yield();
    }
    plugin.leave();
    runDeferredDeletes();
}

void run(quint64 seed, quint64 deliveries, CMessageCenter::MessageQueue& queue)
{
    const BookingReceiver receivers[receiverCount] = {0, 1, 2, 3, 4, 5};
    std::atomic<bool> producersDone{false};
    std::atomic<bool> allArrived{false};
    const auto drained = std::async(std::launch::async, [&] {
        for (Reference message; !allArrived; std::this_thread::yield()) {
            for (; queue.try_pop(message); message.reset())
                book(outside, message->GetMsg().value<Entry>(), message->GetType());
        }
    });
    const auto visits = std::async(std::launch::async, [&] {
        while (!producersDone)
            passBy();
    });
    onThreads(producerCount, [=](int producer) {
        produce(producer, seed, deliveries / producerCount);
    }).clear();
    producersDone = true;
    visits.wait();
    waitForRecords();
    allArrived = true;
}

} // namespace

Q_DECLARE_METATYPE(Entry)

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    QCommandLineParser options;
    options.addOptions(
        {{"seed", "Makes a run repeatable.", "number", QString::number(std::random_device()())},
         {"long", "Ten million deliveries, not 200,000."}});
    options.process(application);
    const quint64 seed = options.value("seed").toULongLong();
    std::printf("--seed %llu\n", seed);
    std::fflush(stdout);
    QLoggingCategory::setFilterRules("lxbase.debug=false\nlxbase.warning=false");

    CMessageCenter::MessageQueue queue;
    center().setIdlePolicy(idlePolicy());
    center().regNetMsgQueue(&queue);
    center().regQuotationQueue(&queue);
    center().Start();
    run(seed, options.isSet("long") ? 10'000'000 : 200'000, queue);
    center().regNetMsgQueue(nullptr);
    center().regQuotationQueue(nullptr);

    for (int receiver = 0; receiver < bookCount; ++receiver) {
        for (int way = 0; way < Entry::wayCount; ++way) {
            if (arrived[receiver][way] != sent[receiver][way]) {
                qFatal("receiver %d, way %d: %llu due, %llu came", receiver, way,
                       sent[receiver][way], arrived[receiver][way]);
            }
        }
    }
    std::printf("%llu deliveries, each as it was due\n", booked.load());
    return 0;
}
