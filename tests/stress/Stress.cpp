#include "Stress.h"

#include <lxbase/MessageCenter.h>

#include <lxtest/Counted.h>
#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QLoggingCategory>
#include <QThread>

#include <atomic>
#include <cstdarg>
#include <random>

#include <dlfcn.h>
#include <malloc.h>

namespace lxstress {

namespace {

std::atomic<int> failures{0};
constexpr int printedFailures = 10;

} // namespace

Options::Options(const char* purpose, const QList<QCommandLineOption>& additional)
{
    setApplicationDescription(purpose);
    addHelpOption();
    addOptions(
        {{"seed", "Makes a run repeatable.", "number", QString::number(std::random_device()())},
         {"idle", "Idle policy: poll or park.", "policy", "poll"}});
    addOptions(additional);
    process(*QCoreApplication::instance());

    const QString idle = value("idle");
    if (!parks() && idle != "poll")
        showHelp(2);
    CMessageCenter::GetInstance()->setIdlePolicy(parks() ? CMessageCenter::IdlePolicy::Park
                                                         : CMessageCenter::IdlePolicy::Poll);
    QLoggingCategory::setFilterRules("lxbase.debug=false\nlxbase.warning=false");
    std::printf("--seed %llu --idle %s\n", number("seed"), qPrintable(idle));
    std::fflush(stdout);
}

quint64 Options::number(const QString& name) const
{
    bool ok = false;
    const quint64 number = value(name).toULongLong(&ok);
    if (!ok)
        qFatal("--%s takes a number", qPrintable(name));
    return number;
}

void fail(const char* format, ...)
{
    va_list values;
    va_start(values, format);
    if (++failures <= printedFailures)
        std::fprintf(stderr, "FAILED: %s\n", qPrintable(QString::vasprintf(format, values)));
    va_end(values);
}

int verdict(const QString& summary)
{
    if (failures > 0)
        std::fprintf(stderr, "%d failures\n", failures.load());
    else
        std::printf("%s\n", qPrintable(summary));
    return failures > 0;
}

void waitFor(const char* what, const std::function<bool()>& condition, const Progress& progress)
{
    QDeadlineTimer deadline(lxtest::deadlineMs);
    quint64 last = progress();
    while (!condition()) {
        const quint64 now = progress();
        if (now != last)
            deadline.setRemainingTime(lxtest::deadlineMs);
        last = now;
        if (deadline.hasExpired())
            qFatal("FAILED: no progress any more while waiting for %s, at %llu", what, last);
        QThread::msleep(1);
    }
}

void waitForRecords(const Progress& progress)
{
    const auto nothingIsAlive = [] {
        return lxtest::CountedMessage::alive() == 0 && lxtest::CountedEvent::alive() == 0
            && lxtest::CountedPayload::alive() == 0;
    };
    waitFor("every record and payload to be handled or freed", nothingIsAlive, progress);
}

int threadCount()
{
    return QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

std::size_t allocatedBytes()
{
    return mallinfo2().uordblks;
}

bool isMapped(const QString& library)
{
    return dlopen(library.toLocal8Bit(), RTLD_LAZY | RTLD_NOLOAD) != nullptr;
}

quint64 mixed(quint64 seed, quint64 stream, quint64 index)
{
    // the finaliser of SplitMix64
    quint64 z = seed + 0x9e3779b97f4a7c15u * (index + 1) + 0xd1342543de82ef95u * stream;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
}

} // namespace lxstress
