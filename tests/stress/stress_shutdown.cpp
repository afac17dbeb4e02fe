// Shutdown under load: processes end, and a library with the bus in it is unloaded, with producers
// that have just stopped or are still putting, lists full, handlers slow, plugins registered or
// not. Each case runs in a process of its own, which has to end in time, normally and without a
// word but the warning that names the plugins which were still registered.
#include "BusLoad.h"
#include "Stress.h"

#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QLibrary>
#include <QLoggingCategory>
#include <QProcess>

#include <iterator>

namespace {

using namespace lxstress;

// Reachable to the end of the process and beyond the statics of the bus, as the bus needs them.
void* volatile keptForEver = nullptr;

// The plugins stay registered: the bus stops them.
void exitWithPlugins(bool park)
{
    keptForEver = new SlowPlugins(loadBus(park));
}

// Orderly, but with everything full.
void exitWithoutPlugins(bool park)
{
    auto plugins = loadBus(park);
    for (const auto& plugin : plugins)
        plugin->leave();
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
                putOnEveryPath(100);
        }).detach();
    }
}

// The bus is destroyed on a plugin's own thread, while the main thread waits in vain.
void exitInAHandler(bool park)
{
    exitWithPlugins(park);
    exitInHandler = true;
    lxtest::Latch().wait();
}

void unloadLibrary(bool park)
{
    std::thread([] {}).join(); // a sanitizer has started its own thread by now
    const int threadsBefore = threadCount();
    QLibrary library(QCoreApplication::applicationDirPath() + "/libunload_host.so");
    const auto loadTheBus = reinterpret_cast<LoadTheBus>(library.resolve("loadTheBus"));
    if (!loadTheBus)
        qFatal("%s", qPrintable(library.errorString()));
    keptForEver = loadTheBus(park);
    if (!library.unload() || isMapped(library.fileName()))
        qFatal("the library is still there after its unloading");
    QLoggingCategory::setFilterRules(QString()); // looks at every category there is
    // A thread that has been waited for may still be on its way out of the framework.
    waitFor("the threads of the library to end", [&] { return threadCount() == threadsBefore; });
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
    {"exitInAHandler", exitInAHandler, "load.slow4"},
    {"unloadLibrary", unloadLibrary, "load.slow3"},
};

// The warning that names the plugins which the bus had to stop, and nothing else, save that a put
// on the network paths may find them gone.
bool isExpected(const QByteArray& log, const char* stillRegistered)
{
    int warnings = 0;
    for (const QByteArray& line : log.split('\n')) {
        if (stillRegistered && line.contains("plugins still registered")
            && line.contains(stillRegistered))
            ++warnings;
        else if (!line.isEmpty() && !line.contains("maybe no init netmodule"))
            return false;
    }
    return warnings == (stillRegistered ? 1 : 0);
}

void runChild(const Case& scenario, bool park)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(),
                {"--idle", park ? "park" : "poll", "--case", scenario.name});
    const bool ended = child.waitForFinished(2 * lxtest::deadlineMs);
    if (!ended) {
        child.kill();
        child.waitForFinished();
    }
    const bool normal = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    const QByteArray log = child.readAllStandardError();
    if (!ended || !normal || !isExpected(log, scenario.stillRegistered)) {
        fail("%s %s, exit code %d, log: %s", scenario.name, ended ? "ended" : "hung",
             child.exitCode(), log.left(10000).constData());
    }
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const Options options("Ends processes in the middle of their work.",
                          {{"case", "Runs one case here.", "name"}});
    const QString wanted = options.value("case");
    for (const Case& scenario : cases) {
        if (wanted.isEmpty()) {
            runChild(scenario, options.parks());
        } else if (wanted == scenario.name) {
            QLoggingCategory::setFilterRules("lxbase.debug=false");
            scenario.run(options.parks());
            return 0;
        }
    }
    return verdict(QString("%1 kinds of end").arg(std::size(cases)));
}
