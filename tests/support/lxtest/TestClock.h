// The clock of the unit tests: takes the place of the platform's tick counter at link time.
#ifndef LXTEST_TESTCLOCK_H
#define LXTEST_TESTCLOCK_H

#include <atomic>
#include <cstdint>

namespace lxtest {

// Stands still until a test moves it; a test that does so in a handler knows that the worker looks
// at it after that handler.
inline std::atomic<std::uint32_t> tickCountMs{0};

} // namespace lxtest

#endif
