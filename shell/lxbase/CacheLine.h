// CacheLine: what one thread writes for each message, and others touch for each message, lies on
// cache lines of its own.
// Internal: not installed.
#ifndef LXBASE_CACHELINE_H
#define LXBASE_CACHELINE_H

#include <cstddef>

namespace lxbase::detail {

constexpr std::size_t CacheLine = 64; // bytes, or a divisor of what the processor has

} // namespace lxbase::detail

#endif
