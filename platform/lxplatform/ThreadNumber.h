/// \file
/// The number by which the system's tools know a thread.
#ifndef LXPLATFORM_THREADNUMBER_H
#define LXPLATFORM_THREADNUMBER_H

#include <cstdint>

#ifdef __linux__
#include <sys/syscall.h>
#include <unistd.h>
#else
#include <functional>
#include <thread>
#endif

namespace lxplatform {

/// Of the calling thread: on Linux what top, gdb and the framework's "%{threadid}" show.
inline std::uint64_t currentThreadNumber()
{
#ifdef __linux__
    return static_cast<std::uint64_t>(::syscall(SYS_gettid));
#else
    return std::hash<std::thread::id>()(std::this_thread::get_id());
#endif
}

} // namespace lxplatform

#endif
