#include "Bench.h"

#include "Payload.h"
#include "Receiver.h"

#include <benchmark/benchmark.h>

#include <lxbase/MessageCenter.h>

#include <QCoreApplication>
#include <QEvent>
#include <QLoggingCategory>

#include <tbb/version.h>
#include <zmq.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>

namespace bench {

namespace {

// Takes the value of --idle out of the arguments. False: it is neither poll nor park.
bool takeIdlePolicy(int& argc, char** argv, CMessageCenter::IdlePolicy& policy)
{
    int kept = 1;
    for (int k = 1; k < argc; ++k) {
        if (std::strcmp(argv[k], "--idle=poll") == 0)
            policy = CMessageCenter::IdlePolicy::Poll;
        else if (std::strcmp(argv[k], "--idle=park") == 0)
            policy = CMessageCenter::IdlePolicy::Park;
        else if (std::strncmp(argv[k], "--idle", 6) == 0)
            return false;
        else
            argv[kept++] = argv[k];
    }
    argc = kept;
    return true;
}

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
    auto policy = CMessageCenter::IdlePolicy::Park;
    if (!takeIdlePolicy(argc, argv, policy)) {
        std::fprintf(stderr, "%s: --idle takes poll or park, e.g. --idle=park\n", argv[0]);
        return EXIT_FAILURE;
    }
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
