#include <lxtest/TestMain.h>

#include <lxtest/LogCapture.h>
#include <lxtest/Wait.h>

#include <QCoreApplication>
#include <QMap>
#include <QProcess>
#include <QtTest>

#include <cstdio>
#include <memory>
#include <utility>

namespace lxtest {

namespace {

const char childOption[] = "--child";

QMap<QByteArray, std::function<int()>>& scenarios()
{
    static QMap<QByteArray, std::function<int()>> map;
    return map;
}

// A plain function works to the very end of the process; a message pattern does not.
void writeForParent(QtMsgType level, const QMessageLogContext& context, const QString& text)
{
    std::fprintf(stderr, "%s %s: %s\n", qPrintable(nameOf(level)), context.category,
                 qPrintable(text));
}

} // namespace

CMessageCenter::IdlePolicy idlePolicy()
{
    return qgetenv("LXTEST_IDLE") == "park" ? CMessageCenter::IdlePolicy::Park
                                            : CMessageCenter::IdlePolicy::Poll;
}

ChildScenario::ChildScenario(const char* name, std::function<int()> body)
{
    scenarios().insert(name, std::move(body));
}

ChildResult runChild(const char* scenario)
{
    QProcess child;
    child.start(QCoreApplication::applicationFilePath(),
                {QLatin1String(childOption), QLatin1String(scenario)});
    if (!child.waitForFinished(2 * deadlineMs)) {
        child.kill();
        child.waitForFinished();
    }
    const bool succeeded = child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0;
    const QString log = QString::fromLocal8Bit(child.readAllStandardError());
    return {succeeded, log.split(QLatin1Char('\n'), Qt::SkipEmptyParts)};
}

int testMain(int argc, char** argv, const std::function<QObject*()>& makeTest)
{
    QCoreApplication application(argc, argv);
    CMessageCenter::GetInstance()->setIdlePolicy(idlePolicy());
    if (argc == 3 && qstrcmp(argv[1], childOption) == 0) {
        qInstallMessageHandler(writeForParent);
        const auto scenario = scenarios().constFind(argv[2]);
        if (scenario == scenarios().constEnd())
            qFatal("no such scenario: %s", argv[2]);
        return (*scenario)();
    }
    const std::unique_ptr<QObject> test(makeTest());
    return QTest::qExec(test.get(), argc, argv);
}

} // namespace lxtest
