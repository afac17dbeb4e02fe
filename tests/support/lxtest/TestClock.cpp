#include <lxtest/TestClock.h>

#include <lxplatform/Clock.h>

#include <chrono>
#include <thread>

std::uint32_t lxplatform::tickCountMs()
{
    return lxtest::tickCountMs;
}

void lxplatform::sleepMs(std::uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}
