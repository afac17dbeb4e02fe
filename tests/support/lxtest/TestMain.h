// The main function of a test program, and the scenarios that it runs in processes of their own.
#ifndef LXTEST_TESTMAIN_H
#define LXTEST_TESTMAIN_H

#include <lxtest/Plugin.h>

#include <QMap>
#include <QProcess>
#include <QtTest>

#include <cstdio>
#include <memory>

namespace lxtest {

// The idle policy under which this program runs: Park if the environment says LXTEST_IDLE=park,
// else Poll. The same program is run once with each.
inline CMessageCenter::IdlePolicy idlePolicy()
{
    return qgetenv("LXTEST_IDLE") == "park" ? CMessageCenter::IdlePolicy::Park
                                            : CMessageCenter::IdlePolicy::Poll;
}

// What has to happen in a process of its own, because it is about the end of one. Made at namespace
// scope; `body` gets a core application, its result is the exit code.
struct ChildScenario
{
    ChildScenario(const char* name, std::function<int()> body) { all().insert(name, body); }

    static QMap<QByteArray, std::function<int()>>& all()
    {
        static QMap<QByteArray, std::function<int()>> scenarios;
        return scenarios;
    }
};

struct ChildResult
{
    bool succeeded;  // it ended by itself, in time, with exit code 0
    QStringList log; // its log records on stderr, in order: "warning lxbase: ..."
};

// Runs a scenario of this program, under the same idle policy.
inline ChildResult runChild(const char* scenario)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(), {"--child", scenario});
    if (!child.waitForFinished(2 * deadlineMs)) {
        child.kill();
        child.waitForFinished();
    }
    const bool succeeded = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    const QString log = QString::fromLocal8Bit(child.readAllStandardError());
    return {succeeded, log.split(QLatin1Char('\n'), Qt::SkipEmptyParts)};
}

inline const char* nameOf(QtMsgType level)
{
    static const char* const names[] = {"debug", "warning", "critical", "fatal", "info"};
    return names[level];
}

// For the child. A plain function works to the very end of the process; a message pattern does not.
inline void writeForParent(QtMsgType level, const QMessageLogContext& context, const QString& text)
{
    std::fprintf(stderr, "%s %s: %s\n", nameOf(level), context.category, qPrintable(text));
}

// Runs the scenario that the command line names, else the slots of the test.
template<class Test>
int testMain(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    center().setIdlePolicy(idlePolicy());
    if (argc == 3 && qstrcmp(argv[1], "--child") == 0) {
        qInstallMessageHandler(writeForParent);
        return ChildScenario::all()[argv[2]]();
    }
    Test test;
    return QTest::qExec(&test, argc, argv);
}

} // namespace lxtest

#define LXTEST_MAIN(Test)                                                                          \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        return lxtest::testMain<Test>(argc, argv);                                                 \
    }

#endif
