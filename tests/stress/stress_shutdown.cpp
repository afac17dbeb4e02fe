// Shutdown under load: processes end, and a library with the bus in it is unloaded, with producers
// that have just stopped or are still putting, lists full, handlers slow, plugins registered or
// not. Each case runs in a process of its own, which has to end in time, normally and without a
// word but the warning that names the plugins which were still registered.
#include "BusLoad.h"
#include "Stress.h"
#include "UnloadHost.h"

#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QLibrary>
#include <QLoggingCategory>
#include <QProcess>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

using lxstress::fail;

// Reachable to the end of the process and beyond the statics of the bus, as the bus needs them.
void* volatile keptForEver = nullptr;

CMessageCenter::IdlePolicy policyOf(bool park)
{
    return park ? CMessageCenter::IdlePolicy::Park : CMessageCenter::IdlePolicy::Poll;
}

// The plugins stay registered: the bus stops them.
void exitWithPlugins(bool park)
{
    keptForEver = new lxstress::SlowPlugins(lxstress::loadBus(policyOf(park)));
}

// Orderly, but with everything full.
void exitWithoutPlugins(bool park)
{
    auto plugins = lxstress::loadBus(policyOf(park));
    for (const auto& plugin : plugins)
        plugin->UnReg(plugin->id());
    plugins.clear();
    lxtest::runDeferredDeletes();
}

// Threads that the host forgot go on putting while the bus is destroyed, and after.
void exitUnderFire(bool park)
{
    exitWithPlugins(park);
    for (int i = 0; i < 2; ++i) {
        std::thread([] {
            for (;;)
                lxstress::putOnEveryPath(100);
        }).detach();
    }
}

void unloadLibrary(bool park)
{
    std::thread([] {}).join(); // a sanitizer has started its own thread by now
    const int threadsBefore = lxstress::threadCount();
    const QString path =
        QCoreApplication::applicationDirPath() + QStringLiteral("/libunload_host.so");
    QLibrary library(path);
    const auto loadTheBus = reinterpret_cast<LoadTheBus>(library.resolve("loadTheBus"));
    if (!loadTheBus)
        qFatal("%s", qPrintable(library.errorString()));
    keptForEver = loadTheBus(park);
    if (!library.unload())
        qFatal("%s", qPrintable(library.errorString()));
    if (lxstress::isCodeMapped(path))
        qFatal("the library is still there after its unloading");
    QLoggingCategory::setFilterRules(QString()); // looks at every category there is
    // A thread that has been waited for may still be on its way out of the framework.
    lxstress::waitFor(
        "the threads of the library to end",
        [&] { return lxstress::threadCount() == threadsBefore; },
        [] { return std::uint64_t(lxstress::threadCount()); });
}

const struct Case
{
    const char* name;
    void (*run)(bool park);
    const char* stillRegistered; // in the warning; null: no warning
} cases[] = {
    {"exitWithPlugins", exitWithPlugins, "load.slow4"},
    {"exitWithoutPlugins", exitWithoutPlugins, nullptr},
    {"exitUnderFire", exitUnderFire, "load.slow4"},
    {"unloadLibrary", unloadLibrary, "load.slow3"},
};

// The warning that names the plugins which the bus had to stop, and nothing else, save that a put
// on the network paths may find them gone.
bool isExpected(const QByteArray& log, const char* stillRegistered)
{
    int warnings = 0;
    for (const QByteArray& line : log.split('\n')) {
        if (line.contains("plugins still registered")) {
            ++warnings;
            if (!stillRegistered || !line.contains(stillRegistered))
                return false;
        } else if (!line.isEmpty() && !line.contains("maybe no init netmodule")) {
            return false;
        }
    }
    return warnings == (stillRegistered ? 1 : 0);
}

void runChild(const Case& scenario, const QString& idle)
{
    QProcess child;
    child.start(
        QCoreApplication::applicationFilePath(),
        {QStringLiteral("--idle"), idle, QStringLiteral("--case"), QLatin1String(scenario.name)});
    const bool ended = child.waitForFinished(2 * lxtest::deadlineMs);
    if (!ended) {
        child.kill();
        child.waitForFinished();
    }
    const bool normal = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    const QByteArray log = child.readAllStandardError();
    if (!ended || !normal || !isExpected(log, scenario.stillRegistered)) {
        fail(QStringLiteral("%1 %2, exit code %3, log: %4")
                 .arg(QLatin1String(scenario.name),
                      ended ? QStringLiteral("ended") : QStringLiteral("hung"))
                 .arg(child.exitCode())
                 .arg(QString::fromLocal8Bit(log.left(10000))));
    }
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const lxstress::Options options("Ends processes in the middle of their work.",
                                    {{QStringLiteral("case"), QStringLiteral("Runs one case here."),
                                      QStringLiteral("name"), QString()}});
    const QByteArray wanted = options.text("case").toLocal8Bit();
    for (const Case& scenario : cases) {
        if (wanted.isEmpty()) {
            runChild(scenario, options.text("idle"));
        } else if (wanted == scenario.name) {
            QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false"));
            scenario.run(options.text("idle") == QLatin1String("park"));
            return 0;
        }
    }
    return lxstress::verdict(QStringLiteral("%1 kinds of end").arg(std::size(cases)));
}
