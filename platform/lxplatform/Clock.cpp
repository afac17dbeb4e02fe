#include <lxplatform/Clock.h>

#ifdef _WIN32
#include <windows.h>
#else
#include <chrono>
#include <thread>
#endif

namespace lxplatform {

#ifdef _WIN32

std::uint32_t tickCountMs()
{
    return GetTickCount();
}

void sleepMs(std::uint32_t ms)
{
    Sleep(ms);
}

#else

std::uint32_t tickCountMs()
{
    using namespace std::chrono;
    const auto sinceStart = steady_clock::now().time_since_epoch();
    return static_cast<std::uint32_t>(duration_cast<milliseconds>(sinceStart).count());
}

void sleepMs(std::uint32_t ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

#endif

} // namespace lxplatform
