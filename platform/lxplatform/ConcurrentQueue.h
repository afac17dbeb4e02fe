/// \file
/// Concurrency::concurrent_queue: the concurrency runtime's unbounded queue for many producers and
/// many consumers (push, try_pop, empty, unsafe_size). Where the platform has none, oneTBB's queue
/// of the same design takes its place.
#ifndef LXPLATFORM_CONCURRENTQUEUE_H
#define LXPLATFORM_CONCURRENTQUEUE_H

#ifdef _MSC_VER

#include <concurrent_queue.h>

#else

// oneTBB has a function named emit, Qt a macro. Hide the macro for the length of the include, so
// that this header works wherever it stands in a file.
#pragma push_macro("emit")
#undef emit
#include <tbb/concurrent_queue.h>
#pragma pop_macro("emit")

#ifdef __SANITIZE_THREAD__
#include <memory>
#endif

namespace Concurrency {

/// push and try_pop from any thread, at the same time.
#ifdef __SANITIZE_THREAD__ // sees memory go from thread to thread if the standard library hands it
template<class T>
using concurrent_queue = tbb::concurrent_queue<T, std::allocator<T>>;
#else
template<class T>
using concurrent_queue = tbb::concurrent_queue<T>;
#endif

} // namespace Concurrency

#endif

#endif
