// The main function of a test program, and the scenarios that it runs in processes of their own.
#ifndef LXTEST_TESTMAIN_H
#define LXTEST_TESTMAIN_H

#include <lxbase/MessageCenter.h>

#include <QStringList>

#include <functional>

class QObject;

namespace lxtest {

// The idle policy under which this program runs: Park if the environment says LXTEST_IDLE=park,
// else Poll. The same program is run once with each.
CMessageCenter::IdlePolicy idlePolicy();

// What has to happen in a process of its own, because it is about the end of one. Made at namespace
// scope; `body` gets a core application, its result is the exit code.
class ChildScenario
{
public:
    ChildScenario(const char* name, std::function<int()> body);
};

struct ChildResult
{
    bool succeeded;  // it ended by itself, in time, with exit code 0
    QStringList log; // its log records on stderr, in order: "warning lxbase: ..."
};

// Runs a scenario of this program, under the same idle policy.
ChildResult runChild(const char* scenario);

// Runs the scenario that the command line names, else the slots of the test that `makeTest` makes.
int testMain(int argc, char** argv, const std::function<QObject*()>& makeTest);

} // namespace lxtest

#define LXTEST_MAIN(TestClass)                                                                     \
    int main(int argc, char** argv)                                                                \
    {                                                                                              \
        return lxtest::testMain(argc, argv, []() -> QObject* { return new TestClass; });           \
    }

#endif
