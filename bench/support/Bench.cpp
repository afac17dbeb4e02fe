#include "Bench.h"

#include "Payload.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxbase/BusMonitor.h>
#include <lxbase/MessageCenter.h>

#include <QCoreApplication>
#include <QEvent>
#include <QLoggingCategory>

#include <tbb/version.h>
#include <zmq.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace bench {

namespace {

// An option of the program with the values that it takes.
template<class Value>
struct Choice
{
    const char* option;
    std::vector<std::pair<const char*, Value>> values;
};

// Takes `choice` out of the arguments; the first value is the one that holds without it. Ends the
// program if it is given with a value that there is not.
template<class Value>
Value take(int& argc, char** argv, const Choice<Value>& choice)
{
    Value taken = choice.values.front().second;
    const std::string prefix = std::string(choice.option) + '=';
    int kept = 1;
    for (int k = 1; k < argc; ++k) {
        const std::string argument = argv[k];
        if (argument != choice.option && argument.rfind(prefix, 0) != 0) {
            argv[kept++] = argv[k];
            continue;
        }
        const auto found =
            std::find_if(choice.values.begin(), choice.values.end(),
                         [&](const auto& value) { return argument == prefix + value.first; });
        if (found == choice.values.end()) {
            std::fprintf(stderr, "%s: %s takes one of:", argv[0], choice.option);
            for (const auto& value : choice.values)
                std::fprintf(stderr, " %s", value.first);
            std::fprintf(stderr, "\n");
            std::exit(EXIT_FAILURE);
        }
        taken = found->second;
    }
    argc = kept;
    return taken;
}

const Choice<CMessageCenter::IdlePolicy> idleChoice{
    "--idle",
    {{"park", CMessageCenter::IdlePolicy::Park}, {"poll", CMessageCenter::IdlePolicy::Poll}}};

const Choice<StatisticsLevel> levelChoice{"--level",
                                          {{"counts", StatisticsLevel::Counts},
                                           {"off", StatisticsLevel::Off},
                                           {"sampled", StatisticsLevel::Sampled},
                                           {"full", StatisticsLevel::Full}}};

const Choice<int> traceChoice{"--trace", {{"off", 0}, {"on", 64}}}; // MiB

// What a result depends on, for the report.
void addVersions()
{
    int major = 0;
    int minor = 0;
    int patch = 0;
    zmq_version(&major, &minor, &patch);
    const std::string zmq =
        std::to_string(major) + '.' + std::to_string(minor) + '.' + std::to_string(patch);
    benchmark::AddCustomContext("compiler", "GCC-compatible " __VERSION__);
    benchmark::AddCustomContext("qt", qVersion());
    benchmark::AddCustomContext("tbb", TBB_runtime_version());
    benchmark::AddCustomContext("zmq", zmq);
}

} // namespace

void fail(const char* what)
{
    std::fprintf(stderr, "benchmark failed: %s\n", what);
    std::fflush(nullptr);
    std::_Exit(EXIT_FAILURE);
}

int run(int argc, char** argv, void (*registerBenchmarks)())
{
    const auto policy = take(argc, argv, idleChoice);
    CBusMonitor::setLevel(take(argc, argv, levelChoice));
    if (const int mebibytes = take(argc, argv, traceChoice))
        CBusMonitor::startTrace(mebibytes);
    std::optional<QCoreApplication> application;
    if (!QCoreApplication::instance()) // the program may have one with windows
        application.emplace(argc, argv);
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    setBusDebug(false);
    registerPayloads();
    CMessageCenter::GetInstance()->setIdlePolicy(policy);
    CMessageCenter::GetInstance()->Start();

    benchmark::AddCustomContext("idle_policy",
                                policy == CMessageCenter::IdlePolicy::Park ? "park" : "poll");
    addVersions();
    registerBenchmarks();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return EXIT_FAILURE;
    const bool ran = benchmark::RunSpecifiedBenchmarks() > 0;
    benchmark::Shutdown();
    if (!ran)
        std::fprintf(stderr, "%s: no benchmark matches the filter\n", argv[0]);
    return ran ? EXIT_SUCCESS : EXIT_FAILURE;
}

void setBusDebug(bool on)
{
    QLoggingCategory::setFilterRules(on ? QStringLiteral("lxbase.debug=true")
                                        : QStringLiteral("lxbase.debug=false"));
}

Registration::Registration(const QString& id, IMessageInterface& plugin,
                           IMessageInterface::ThreadType type)
    : m_id(id)
    , m_plugin(plugin)
{
    m_plugin.Reg(m_id, &m_plugin, type);
}

Registration::~Registration()
{
    m_plugin.UnReg(m_id);
}

void Registration::deleteRetiredWorkers()
{
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
}

IdlePlugins::IdlePlugins(int plugins, IMessageInterface::ThreadType type)
{
    for (int k = 0; k < plugins; ++k) {
        m_plugins.push_back(std::make_unique<Receiver>());
        m_registrations.push_back(std::make_unique<Registration>(QStringLiteral("Idle%1").arg(k),
                                                                 *m_plugins.back(), type));
    }
}

void IdlePlugins::settle()
{
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
}

IdlePlugins::~IdlePlugins()
{
    m_registrations.clear();
    Registration::deleteRetiredWorkers();
}

} // namespace bench
