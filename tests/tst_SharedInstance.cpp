// One center and one pool in the process, also for libraries that are loaded with local symbol
// scope and compiled the inline accessors themselves. Links the shared library.
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>

#include <lxbase/MessageCommonManage.h>

#include <QLibrary>
#include <QtTest>

using namespace lxtest;

namespace {

using Accessor = void* (*)();

// Loaded with local scope, unless a hint says otherwise.
class Library
{
public:
    Library() { m_library.setLoadHints({}); }
    ~Library() { m_library.unload(); }

    Accessor accessor(const char* name)
    {
        return reinterpret_cast<Accessor>(m_library.resolve(name));
    }
    QString error() const { return m_library.errorString(); }

private:
    QLibrary m_library{QStringLiteral(SINGLETONS_LIBRARY)};
};

const ChildScenario askedForByALibraryFirst("askedForByALibraryFirst", [] {
    {
        Library library;
        const Accessor theCenter = library.accessor("theCenter");
        const Accessor thePool = library.accessor("thePool");
        if (!theCenter || !theCenter() || !thePool || !thePool())
            return 1;
    }
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
        Library library;
        const Accessor theCenter = library.accessor("theCenter");
        const Accessor thePool = library.accessor("thePool");
        QVERIFY2(theCenter && thePool, qPrintable(library.error()));
        QCOMPARE(theCenter(), static_cast<void*>(CMessageCenter::GetInstance()));
        QCOMPARE(thePool(), static_cast<void*>(CMessageCommonManage::GetInstance()));
    }

    void bothOutliveALibraryThatAskedForThemFirst()
    {
        const ChildResult child = runChild("askedForByALibraryFirst");
        QVERIFY2(child.succeeded, qPrintable(child.log.join('\n')));
    }
};

LXTEST_MAIN(SharedInstanceTest)
#include "tst_SharedInstance.moc"
