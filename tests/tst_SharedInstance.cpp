// One center and one pool in the process, also for a library that is loaded with local symbol scope
// and compiled the inline accessors itself. Links the shared library.
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>

#include <lxbase/MessageCommonManage.h>

#include <QLibrary>
#include <QtTest>

using namespace lxtest;

class SharedInstanceTest : public QObject
{
    Q_OBJECT

private slots:
    void aPluginLibraryFindsBothAndTheyOutliveIt()
    {
        QLibrary library(QStringLiteral(SINGLETONS_LIBRARY));
        library.setLoadHints({}); // local scope, and unload() removes the code
        const auto asked = [&](const char* name) {
            const auto accessor = reinterpret_cast<void* (*)()>(library.resolve(name));
            return accessor ? accessor() : nullptr;
        };
        void* const theCenter = asked("theCenter");
        QVERIFY2(theCenter, qPrintable(library.errorString()));
        void* const thePool = asked("thePool"); // before this program asks
        QCOMPARE(theCenter, static_cast<void*>(CMessageCenter::GetInstance()));
        QCOMPARE(thePool, static_cast<void*>(CMessageCommonManage::GetInstance()));
        QVERIFY(library.unload());

        QVERIFY(!CMessageCommonManage::GetInstance()->getMessageCommon()); // makes a batch
        QVERIFY(CMessageCommonManage::GetInstance()->getMessageCommon());
        Plugin plugin(M);
        deliverTo(plugin.id(), M, 1);
        QVERIFY(plugin.waitForCalls(1));
    }
};

LXTEST_MAIN(SharedInstanceTest)
#include "tst_SharedInstance.moc"
