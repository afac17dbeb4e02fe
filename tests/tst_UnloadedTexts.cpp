// What the bus keeps of the texts that it was given must not point into a library that goes.
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>
#include <lxevent/EventMessageCommon.h>
#include <lxmsg/MessageCommon.h>

#include <QtTest>

#include <sys/mman.h>

#include <algorithm>
#include <new>

using namespace lxtest;

namespace {

// A string literal as it stands in a plugin's library, and is unmapped with it: whoever touches
// text() or a shallow copy of it afterwards crashes.
class UnloadableLiteral
{
public:
    explicit UnloadableLiteral(const QString& text)
        : m_literal(new (mmap(nullptr, sizeof(Literal), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
                        Literal{Q_STATIC_STRING_DATA_HEADER_INITIALIZER(Capacity), {}})
    {
        m_literal->str.size = std::min(text.size(), Capacity);
        std::copy_n(text.utf16(), m_literal->str.size, m_literal->data);
    }
    ~UnloadableLiteral() { munmap(m_literal, sizeof(Literal)); }
    Q_DISABLE_COPY(UnloadableLiteral)

    QString text() const { return QString(QStringDataPtr{m_literal->data_ptr()}); }

private:
    static constexpr int Capacity = 100;
    using Literal = QStaticStringData<Capacity>;
    Literal* m_literal;
};

} // namespace

class UnloadedTextsTest : public QObject
{
    Q_OBJECT

private slots:
    void theBusKeepsTextsOfItsOwn()
    {
        CMessageCenter& center = *CMessageCenter::GetInstance();
        const auto all = IMessageInterface::MessageThread | IMessageInterface::EventThread
            | IMessageInterface::QuotationThread;
        const int event = uniqueType();
        Plugin subscriber(QStringLiteral("Board#2"), all);
        {
            const UnloadableLiteral id(QStringLiteral("Board#1"));
            const UnloadableLiteral other(subscriber.id());
            const UnloadableLiteral base(QStringLiteral("Board"));
            const UnloadableLiteral type(QStringLiteral("a type"));
            Recorder leaving;
            center.Reg(id.text(), &leaving, all);
            for (const QString& who : {id.text(), other.text()}) {
                center.Sub(who, type.text(), 1);
                center.SubEvent(who, type.text(), 1);
                center.setRelation(base.text(), who, event, RELATION_RED, 1);
            }
            center.UnReg(id.text());
        }
        runDeferredDeletes(); // the workers are deleted after the library has gone
        center.Put("Board#1", new CMessageCommon("", "", "a type", 1));
        center.PutEvent("Board#1", new CEventMessageCommon("", "", "a type", 2));
        center.PutEvent("Board#1", new CEventMessageCommon("", "", event, 3));
        QVERIFY(subscriber.settle());
        QCOMPARE(subscriber.payloads(M), QVariantList({1}));
        QCOMPARE(subscriber.payloads(E), QVariantList({2, 3}));
    }
};

LXTEST_MAIN(UnloadedTextsTest)
#include "tst_UnloadedTexts.moc"
