// One center and one pool in the process, also for libraries that are loaded with local symbol
// scope and compiled the inline accessors themselves. Links the shared library.
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>

#include <lxbase/MessageCommonManage.h>

#include <QLibrary>
#include <QtTest>

using namespace lxtest;

namespace {

// What the library says of the one `name`; null if it cannot say. Loaded with local scope, unless a
// hint says otherwise.
void* asked(QLibrary& library, const char* name)
{
    library.setLoadHints({});
    const auto accessor = reinterpret_cast<void* (*)()>(library.resolve(name));
    return accessor ? accessor() : nullptr;
}

const ChildScenario askedForByALibraryFirst("askedForByALibraryFirst", [] {
    QLibrary library(QStringLiteral(SINGLETONS_LIBRARY));
    if (!asked(library, "theCenter") || !asked(library, "thePool") || !library.unload())
        return 1;
    if (CMessageCommonManage::GetInstance()->getMessageCommon()
        || !CMessageCommonManage::GetInstance()->getMessageCommon())
        return 2;
    Plugin plugin(M);
    deliverTo(plugin.id(), M, 1);
    return plugin.waitForCalls(1) && CountedMessage::alive() == 0 ? 0 : 3;
});

} // namespace

class SharedInstanceTest : public QObject
{
    Q_OBJECT

private slots:
    void aPluginLibraryFindsTheOneCenterAndTheOnePool()
    {
        QLibrary library(QStringLiteral(SINGLETONS_LIBRARY));
        void* const theCenter = asked(library, "theCenter");
        QVERIFY2(theCenter, qPrintable(library.errorString()));
        QCOMPARE(theCenter, static_cast<void*>(CMessageCenter::GetInstance()));
        QCOMPARE(asked(library, "thePool"),
                 static_cast<void*>(CMessageCommonManage::GetInstance()));
    }

    void bothOutliveALibraryThatAskedForThemFirst()
    {
        const ChildResult child = runChild("askedForByALibraryFirst");
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
    }
};

LXTEST_MAIN(SharedInstanceTest)
#include "tst_SharedInstance.moc"
