// The clock of the unit tests: takes the place of the platform's tick counter at link time.
#ifndef LXTEST_TESTCLOCK_H
#define LXTEST_TESTCLOCK_H

#include <cstdint>

namespace lxtest {

// The tick counter stands still until a test moves it. Any thread; a test that advances it in a
// handler knows that the worker looks at it after that handler.
void setTickCountMs(std::uint32_t ms);
void advanceTickCountMs(std::uint32_t ms);

} // namespace lxtest

#endif
