// One center and one pool in the process, both in the library of the bus: for a host that links it,
// for a plugin that was loaded with local symbol scope and hides its symbols, and for a host that
// knows nothing of the bus.
#include <lxtest/Plugin.h>
#include <lxtest/TestMain.h>

#include <lxbase/MessageCommonManage.h>

#include <QFileInfo>
#include <QLibrary>
#include <QProcess>
#include <QtTest>

#include <dlfcn.h>

using namespace lxtest;

namespace {

// The file name of the library that the address lies in.
QString libraryOf(void* address)
{
    Dl_info info;
    return dladdr(address, &info) ? QFileInfo(QFile::decodeName(info.dli_fname)).fileName()
                                  : QString();
}

bool isMapped(const QString& library)
{
    void* const handle = dlopen(QFile::encodeName(library), RTLD_LAZY | RTLD_NOLOAD);
    return handle && dlclose(handle) == 0;
}

} // namespace

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
        QVERIFY(libraryOf(theCenter).startsWith("liblxbase."));
        QVERIFY(libraryOf(thePool).startsWith("liblxbase."));
        const QString file = library.fileName();
        QVERIFY(isMapped(file));
        QVERIFY(library.unload());
        QVERIFY(!isMapped(file));

        QVERIFY(!CMessageCommonManage::GetInstance()->getMessageCommon()); // makes a batch
        QVERIFY(CMessageCommonManage::GetInstance()->getMessageCommon());
        Plugin plugin(M);
        deliverTo(plugin.id(), M, 1);
        QVERIFY(plugin.waitForCalls(1));
    }

    void aHostThatDoesNotLinkTheBusHasThemThereToo()
    {
        QProcess host;
        host.start(QStringLiteral(SINGLETONS_HOST), {QStringLiteral(SINGLETONS_LIBRARY)});
        QVERIFY2(host.waitForFinished(deadlineMs), qPrintable(host.errorString()));
        QCOMPARE(host.exitCode(), 0);
        const QStringList files = QString::fromLocal8Bit(host.readAll()).split('\n');
        for (int i : {0, 1})
            QVERIFY2(QFileInfo(files.value(i)).fileName().startsWith("liblxbase."),
                     qPrintable(files.join(' ')));
    }
};

LXTEST_MAIN(SharedInstanceTest)
#include "tst_SharedInstance.moc"
