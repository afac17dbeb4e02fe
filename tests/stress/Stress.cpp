#include "Stress.h"

#include <lxbase/MessageCenter.h>

#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QLoggingCategory>
#include <QMutex>
#include <QThread>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <random>

#include <malloc.h>

namespace lxstress {

namespace {

std::atomic<int> failures{0};
constexpr int printedFailures = 10;

[[noreturn]] void refuse(const QString& message)
{
    std::fprintf(stderr, "%s\n", qPrintable(message));
    std::exit(2);
}

} // namespace

Options::Options(const char* purpose, const std::vector<QCommandLineOption>& additional)
{
    m_parser.setApplicationDescription(QString::fromUtf8(purpose));
    m_parser.addHelpOption();
    m_parser.addOption({QStringLiteral("seed"), QStringLiteral("Makes a run repeatable."),
                        QStringLiteral("number"), QString::number(std::random_device()())});
    m_parser.addOption({QStringLiteral("idle"), QStringLiteral("Idle policy: poll or park."),
                        QStringLiteral("policy"), QStringLiteral("poll")});
    for (const QCommandLineOption& option : additional)
        m_parser.addOption(option);
    m_parser.process(*QCoreApplication::instance());

    const QString idle = text("idle");
    if (idle != QLatin1String("poll") && idle != QLatin1String("park"))
        refuse(QStringLiteral("--idle %1: neither poll nor park").arg(idle));
    CMessageCenter::GetInstance()->setIdlePolicy(idle == QLatin1String("park")
                                                     ? CMessageCenter::IdlePolicy::Park
                                                     : CMessageCenter::IdlePolicy::Poll);
    QLoggingCategory::setFilterRules(QStringLiteral("lxbase.debug=false\nlxbase.warning=false"));

    m_seed = number("seed");
    std::printf("--seed %llu --idle %s\n", static_cast<unsigned long long>(m_seed),
                qPrintable(idle));
    std::fflush(stdout);
}

bool Options::isSet(const char* name) const
{
    return m_parser.isSet(QLatin1String(name));
}

QString Options::text(const char* name) const
{
    return m_parser.value(QLatin1String(name));
}

std::uint64_t Options::number(const char* name) const
{
    bool ok = false;
    const std::uint64_t value = text(name).toULongLong(&ok);
    if (!ok)
        refuse(QStringLiteral("--%1 %2: not a number").arg(QLatin1String(name), text(name)));
    return value;
}

void fail(const QString& what)
{
    if (++failures <= printedFailures)
        std::fprintf(stderr, "FAILED: %s\n", qPrintable(what));
}

int verdict(const QString& summary)
{
    if (failures > 0) {
        std::fprintf(stderr, "%d failures\n", failures.load());
        return 1;
    }
    std::printf("%s\n", qPrintable(summary));
    return 0;
}

void waitFor(const char* what, const std::function<bool()>& condition,
             const std::function<std::uint64_t()>& progress)
{
    QDeadlineTimer deadline(lxtest::deadlineMs);
    std::uint64_t last = progress();
    while (!condition()) {
        const std::uint64_t now = progress();
        if (now != last) {
            last = now;
            deadline.setRemainingTime(lxtest::deadlineMs);
        }
        if (deadline.hasExpired()) {
            std::fprintf(stderr, "FAILED: no progress any more while waiting for %s, at %llu\n",
                         what, static_cast<unsigned long long>(last));
            std::abort();
        }
        QThread::msleep(1);
    }
}

int threadCount()
{
    return QDir(QStringLiteral("/proc/self/task"))
        .entryList(QDir::Dirs | QDir::NoDotAndDotDot)
        .size();
}

std::size_t allocatedBytes()
{
    return mallinfo2().uordblks;
}

bool isCodeMapped(const QString& library)
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    if (!maps.open(QIODevice::ReadOnly))
        refuse(maps.errorString());
    for (const QByteArray& line : maps.readAll().split('\n')) {
        if (line.contains(" r-xp ") && line.endsWith(library.toLocal8Bit()))
            return true;
    }
    return false;
}

std::uint64_t mixed(std::uint64_t seed, std::uint64_t stream, std::uint64_t index)
{
    // the finaliser of SplitMix64
    std::uint64_t z = seed + 0x9e3779b97f4a7c15u * (index + 1) + 0xd1342543de82ef95u * stream;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
}

} // namespace lxstress
