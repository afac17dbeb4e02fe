// BusTest: the base class of the tests of the bus, with all that they share.
#ifndef LXTEST_BUSTEST_H
#define LXTEST_BUSTEST_H

#include <lxtest/Counted.h>
#include <lxtest/LogCapture.h>
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>
#include <lxtest/Wait.h>

#include <lxbase/MessageCenter.h>

#include <QtTest>

#include <optional>

Q_DECLARE_METATYPE(lxtest::Kind)

namespace lxtest {

// Captures the log during each test, and demands after it that every record and every payload has
// been deleted, and once.
class BusTest : public QObject
{
    Q_OBJECT

protected:
    std::optional<LogCapture> m_log;

private slots:
    void init() { m_log.emplace(); }
    void cleanup()
    {
        m_log.reset();
        runDeferredDeletes();
        LX_WAIT_FOR(CountedMessage::alive() == 0); // a dispatch thread may be the last to let go
        QCOMPARE(CountedEvent::alive(), 0);
        LX_WAIT_FOR(CountedPayload::alive() == 0);
    }
};

// For the data of a test: its column "kind", with a row for each.
inline void addKinds()
{
    QTest::addColumn<Kind>("kind");
    QTest::newRow("message") << M;
    QTest::newRow("quotation") << Q;
    QTest::newRow("event") << E;
}

} // namespace lxtest

#endif
