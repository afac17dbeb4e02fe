// What it costs to take a record from the pool and give it back, next to one uncontended lock and
// unlock of a mutex.
#include "Bench.h"

#include <benchmark/benchmark.h>

#include <lxbase/MessageCommonManage.h>

#include <QMutex>

#include <string>

namespace {

using namespace bench;

void takeAndGiveBack(benchmark::State& state)
{
    CMessageCommonManage* const pool = CMessageCommonManage::GetInstance();
    for (auto _ : state) {
        CMessageCommon* const record = pool->getMessageCommon();
        benchmark::DoNotOptimize(record);
        if (!record) {
            state.SkipWithError("the pool ran out of records");
            break;
        }
        pool->freeMessageCommon(record);
    }
    state.SetItemsProcessed(state.iterations());
}

QMutex sharedMutex;

void lockAndUnlock(benchmark::State& state)
{
    int guarded = 0;
    for (auto _ : state) {
        sharedMutex.lock();
        benchmark::DoNotOptimize(++guarded);
        sharedMutex.unlock();
    }
    state.SetItemsProcessed(state.iterations());
}

void registerBenchmarks()
{
    // the records are made before anything is measured
    CMessageCommonManage::GetInstance()->start();
    CMessageCommonManage::GetInstance()->wait();
    for (const int threads : {1, 2, 4}) {
        const std::string suffix = std::to_string(threads) + "threads/";
        benchmark::RegisterBenchmark(("pool_" + suffix + "bus").c_str(), takeAndGiveBack)
            ->Threads(threads)
            ->UseRealTime();
        benchmark::RegisterBenchmark(("pool_" + suffix + "mutex").c_str(), lockAndUnlock)
            ->Threads(threads)
            ->UseRealTime();
    }
}

} // namespace

int main(int argc, char** argv)
{
    return bench::run(argc, argv, registerBenchmarks);
}
