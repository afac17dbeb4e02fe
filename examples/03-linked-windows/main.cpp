// Three boards and a journal. Two boards share a colour: when one selects a symbol, the other
// follows. The journal subscribed and hears of every selection; the third board of none.
#include <lxbase/MessageInterface.h>
#include <lxevent/EventMessageCommon.h>

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QMutex>
#include <QSemaphore>

#include <cstdio>

enum EventType { SymbolSelected = 3001, Report = 3002 };

class Board final : public IMessageInterface
{
public:
    explicit Board(const QString& id)
        : m_id(id)
    {
        Reg(m_id, this, EventThread);
    }
    ~Board() override { UnReg(m_id); }

    // What the user does in this window.
    void select(const QString& symbol)
    {
        setSymbol(symbol);
        PutEvent(m_id, new CEventMessageCommon(m_id, QString(), SymbolSelected, symbol));
    }

    // A follower only shows the symbol: putting the event again would go round for ever.
    void RecvEvent(QString srcId, QVariant type, QVariant data) override
    {
        if (type == SymbolSelected) {
            std::printf("%s follows %s: %s\n", qPrintable(m_id), qPrintable(srcId),
                        qPrintable(data.toString()));
            setSymbol(data.toString());
        } else if (type == Report) {
            m_reported.release();
        }
    }
    void RecvMsg(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    // What the board shows once everything that this thread has put before has reached it: an inbox
    // keeps the order, so the report is handled after it.
    QString symbolByNow()
    {
        PutEvent(QStringLiteral("Host"),
                 new CEventMessageCommon(QString(), m_id, Report, QVariant()));
        if (!m_reported.tryAcquire(1, 30000))
            return QStringLiteral("no report");
        const QMutexLocker locker(&m_mutex);
        return m_symbol;
    }

private:
    void setSymbol(const QString& symbol)
    {
        const QMutexLocker locker(&m_mutex);
        m_symbol = symbol;
    }

    const QString m_id;
    QMutex m_mutex;
    QString m_symbol; // guarded by m_mutex: set by the user's thread and by the event worker
    QSemaphore m_reported;
};

class Journal final : public IMessageInterface
{
public:
    Journal()
    {
        Reg(m_id, this, EventThread);
        SubEvent(m_id, SymbolSelected, OperAdd);
    }
    ~Journal() override { UnReg(m_id); }

    void RecvEvent(QString srcId, QVariant, QVariant data) override
    {
        std::printf("journal: %s selected %s\n", qPrintable(srcId), qPrintable(data.toString()));
        m_entries.release();
    }
    void RecvMsg(QString, QVariant, QVariant) override { }
    void RecvQuotationMsg(QString, QVariant, QVariant) override { }

    bool waitForEntries(int count) { return m_entries.tryAcquire(count, 30000); }

private:
    const QString m_id = QStringLiteral("Journal");
    QSemaphore m_entries;
};

int main(int argc, char* argv[])
{
    const QCoreApplication app(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));

    Journal journal;
    Board first(QStringLiteral("Board#1"));
    Board second(QStringLiteral("Board#2"));
    Board third(QStringLiteral("Board#3"));

    // The group is filed under the base ID, the part before the "#", and holds full IDs.
    for (const char* member : {"Board#1", "Board#2"}) {
        first.setRelation(QStringLiteral("Board"), QLatin1String(member), SymbolSelected,
                          RELATION_RED, IMessageInterface::OperAdd);
    }

    first.select(QStringLiteral("EUR/USD"));
    const bool followed = second.symbolByNow() == QLatin1String("EUR/USD");
    const bool leftAlone = third.symbolByNow().isEmpty();

    third.select(QStringLiteral("USD/JPY")); // of no colour: nobody follows
    const bool kept = first.symbolByNow() == QLatin1String("EUR/USD")
        && second.symbolByNow() == QLatin1String("EUR/USD");

    return followed && leftAlone && kept && journal.waitForEntries(2) ? 0 : 1;
}
