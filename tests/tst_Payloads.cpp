// Payloads with code of their own: where the bus copies and destroys them.
#include <lxtest/BusTest.h>

#include <lxbase/InboxWorker.h>

#include <atomic>
#include <stdexcept>

using namespace lxtest;

namespace {

// Small enough to be copied by value in a variant. Puts when the last copy goes.
struct Putting
{
    Putting() = default;
    Putting(const Putting& other)
        : puts(other.puts)
    { }
    ~Putting()
    {
        if (puts && !inside.exchange(true)) {
            center().Put("payload", message({}, 1));
            center().PutEvent("payload", makeEvent({}, 0x30005));
            center().Sub("payload", 1, 3);
            inside = false;
        }
    }

    bool puts = true;
    inline static std::atomic<bool> inside{false};
};

// The copy that brings the count to zero throws, of those that are made on the way to the inboxes.
struct Throwing
{
    Throwing() = default;
    Throwing(const Throwing&)
    {
        if (!CInboxWorkerBase::current() && --copiesLeft == 0)
            throw std::runtime_error("no copy");
    }
    inline static std::atomic<int> copiesLeft{0};
};

using Put = void (*)(const QString& dst, int type, const QVariant& data);
const QMap<QByteArray, Put> paths{
    {"Put",
     [](const QString& dst, int type, const QVariant& data) {
         center().Put("tester", message(dst, type, data));
     }},
    {"PutEvent",
     [](const QString& dst, int type, const QVariant& data) {
         center().PutEvent("tester", makeEvent(dst, type, data));
     }},
    {"PutNetMsg",
     [](const QString& dst, int type, const QVariant& data) {
         center().PutNetMsg("tester", message(dst, type, data));
     }},
    {"PutQuotationMsg",
     [](const QString& dst, int type, const QVariant& data) {
         center().PutQuotationMsg("tester", message(dst, type, data));
     }},
};

} // namespace

Q_DECLARE_METATYPE(Putting)
Q_DECLARE_METATYPE(Throwing)
Q_DECLARE_TYPEINFO(Putting, Q_MOVABLE_TYPE);
Q_DECLARE_TYPEINFO(Throwing, Q_MOVABLE_TYPE);

class PayloadsTest : public BusTest
{
    Q_OBJECT

private slots:
    void initTestCase() { center().Start(); }

    // The item is refused: the subscriber, the group member, the destination is not registered. A
    // destructor that ran under a lock of the bus would wait for itself.
    void aRefusedPayloadMayPutInItsDestructor_data() { addPuts(); }
    void aRefusedPayloadMayPutInItsDestructor()
    {
        QFETCH(QByteArray, put);
        const int type = uniqueType();
        Plugin last(All);
        for (const QString& id : {QString("nobody"), last.id()}) {
            center().Sub(id, type, 1);
            center().SubEvent(id, type, 1);
        }
        center().Sub("nobody", type + 1, 1);
        center().SubEvent("nobody", type + 1, 1);
        center().setRelation("tester", "tester", type + 1, RELATION_RED, 1);
        center().setRelation("tester", "nobody", type + 1, RELATION_RED, 1);
        const QVariant payload = QVariant::fromValue(Putting());
        paths[put]("nobody", type, payload);
        paths[put]({}, type + 1, payload);
        paths[put]({}, type, payload);
        QVERIFY(last.waitForCalls(1));
        center().UnReg("nobody");
    }

    // Whichever copy throws: at most one receiver goes without, and that is said.
    void aCopyThatThrowsCostsOneReceiver_data() { addPuts(); }
    void aCopyThatThrowsCostsOneReceiver()
    {
        QFETCH(QByteArray, put);
        const int type = uniqueType();
        Plugin plugins[] = {Plugin(All), Plugin(All), Plugin(All)};
        for (Plugin& plugin : plugins) {
            plugin.subscribe(type);
            plugin.subscribeEvent(type);
        }
        const QVariant payload = QVariant::fromValue(Throwing());
        int lost = 0;
        for (int copy = 2; copy <= 5; ++copy) { // the first is the test's own, into the record
            Throwing::copiesLeft = copy;
            m_log->clear();
            paths[put]({}, type, payload);
            LX_WAIT_FOR(CountedMessage::alive() + CountedEvent::alive() == 0);
            Throwing::copiesLeft = 0;
            int received = 0;
            for (Plugin& plugin : plugins) {
                QVERIFY(plugin.settle());
                received += plugin.count();
            }
            const QStringList said = m_log->lines("critical");
            lost += said.size();
            QCOMPARE(received, 3 * (copy - 1) - lost);
            for (const QString& line : said)
                QVERIFY2(line.contains(QString::number(type)) && line.contains("no copy"),
                         qPrintable(line));
        }
        QVERIFY(lost > 0);
    }

private:
    static void addPuts()
    {
        QTest::addColumn<QByteArray>("put");
        for (const QByteArray& put : paths.keys())
            QTest::newRow(put) << put;
    }
};

LXTEST_MAIN(PayloadsTest)
#include "tst_Payloads.moc"
