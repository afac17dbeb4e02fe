#include <lxtest/TestClock.h>

#include <lxplatform/Clock.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

std::atomic<std::uint32_t> ticks{0};

} // namespace

void lxtest::setTickCountMs(std::uint32_t ms)
{
    ticks = ms;
}

void lxtest::advanceTickCountMs(std::uint32_t ms)
{
    ticks += ms;
}

std::uint32_t lxplatform::tickCountMs()
{
    return ticks;
}

void lxplatform::sleepMs(std::uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
