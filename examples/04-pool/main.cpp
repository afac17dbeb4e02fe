// A plugin that keeps the last price of each symbol in a record borrowed from the pool and fills it
// in place, price after price.
//
// A pooled record stays the pool's. Never
//   - hand it to Put, PutEvent, PutNetMsg or PutQuotationMsg: they delete what they are given, and
//     the pool would hand out a dangling pointer;
//   - delete it, for the same reason;
//   - give it back twice: two borrowers would then hold the same record;
//   - give back a copy of it: a copy carries the same index and would free the original's slot;
//   - touch it after it has been given back.
// Borrowed below makes the first four impossible to do by accident.
#include <lxbase/MessageCommonManage.h>
#include <lxbase/MessageInterface.h>
#include <lxmsg/MessageCommon.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QSemaphore>

#include <cstdio>
#include <map>
#include <memory>

enum MessageType { EurUsd = 4001, UsdJpy = 4002, AskForLast = 4003 };

// A record on loan: goes back to the pool, once, when its holder lets go of it.
struct GiveBack
{
    void operator()(CMessageCommon* record) const
    {
        record->SetMsg(QVariant()); // the pool keeps what the record holds, so let go of it
        CMessageCommonManage::GetInstance()->freeMessageCommon(record);
    }
};
using Borrowed = std::unique_ptr<CMessageCommon, GiveBack>;

// Null means that there is no record at the moment. The call that finds the pool empty makes a
// batch for the calls after it, so a second one is worth the try.
Borrowed borrow()
{
    CMessageCommonManage* const pool = CMessageCommonManage::GetInstance();
    CMessageCommon* record = pool->getMessageCommon();
    if (!record)
        record = pool->getMessageCommon();
    return Borrowed(record);
}

class LastPrices final : public IMessageInterface
{
public:
    LastPrices()
    {
        Reg(m_id, this, MessageThread);
        for (const MessageType type : {EurUsd, UsdJpy, AskForLast})
            Sub(m_id, type, OperAdd);
    }
    ~LastPrices() override { UnReg(m_id); } // then the records in m_last go back

    void RecvMsg(QString srcId, QVariant type, QVariant data) override
    {
        if (type == AskForLast) {
            // A put gets a record of its own, with the values of the borrowed one.
            for (const auto& [symbol, last] : m_last)
                Put(m_id, new CMessageCommon(m_id, srcId, symbol, last->GetMsg()));
            return;
        }
        Borrowed& last = m_last[type.toInt()];
        if (!last)
            last = borrow();
        if (last) {
            last->SetType(type); // a record comes as its last user left it: set what you read
            last->SetMsg(data);
        }
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

private:
    const QString m_id = QStringLiteral("LastPrices");
    std::map<int, Borrowed> m_last; // touched by the message worker only
};

// Asks for the last prices and adds them up.
class Customer final : public IMessageInterface
{
public:
    Customer() { Reg(m_id, this, MessageThread); }
    ~Customer() override { UnReg(m_id); }

    void put(MessageType type, const QVariant& data)
    {
        Put(m_id, new CMessageCommon(m_id, QString(), type, data));
    }

    void RecvMsg(QString, QVariant type, QVariant data) override
    {
        std::printf("last price of %d: %.2f\n", type.toInt(), data.toDouble());
        m_sum += data.toDouble();
        m_answers.release();
    }
    void RecvEvent(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    double sumOf(int answers) { return m_answers.tryAcquire(answers, 30000) ? m_sum : 0; }

private:
    const QString m_id = QStringLiteral("Customer");
    QSemaphore m_answers;
    double m_sum = 0; // read after m_answers has been acquired
};

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    // Warming up: the pool's own thread makes the first batch, so that no handler has to wait for
    // the making of 100000 records.
    CMessageCommonManage::GetInstance()->start();

    LastPrices lastPrices;
    Customer customer;
    for (const double price : {1.25, 1.50})
        customer.put(EurUsd, price);
    for (const double price : {110.25, 110.50})
        customer.put(UsdJpy, price);
    customer.put(AskForLast, QVariant());
    return customer.sumOf(2) == 1.50 + 110.50 ? 0 : 1;
}
