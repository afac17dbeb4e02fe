/// \file
/// The desktop platform's tick counter and millisecond sleep.
/// Internal: not installed.
///
/// The two functions are linked, not inlined: a test links an implementation of its own in their
/// place and so drives the time that the bus sees.
#ifndef LXPLATFORM_CLOCK_H
#define LXPLATFORM_CLOCK_H

#include <cstdint>

namespace lxplatform {

/// Milliseconds since an arbitrary start, monotonic, modulo 2^32 (it wraps every 49.7 days). Take
/// differences in unsigned 32-bit arithmetic; they are right across the wrap. Any thread.
std::uint32_t tickCountMs();

/// Blocks the calling thread for at least `ms` milliseconds.
void sleepMs(std::uint32_t ms);

} // namespace lxplatform

#endif
