// LXBASE_THREAD_LOCAL: for thread-local variables that every put touches.
// Internal: not installed.
#ifndef LXBASE_THREADLOCAL_H
#define LXBASE_THREADLOCAL_H

// Reached by one load instead of a call. That takes room in each thread's static block, of which
// the C library keeps some for libraries that are loaded later: for a few words only.
#if defined(__ELF__)
#define LXBASE_THREAD_LOCAL __attribute__((tls_model("initial-exec")))
#else
#define LXBASE_THREAD_LOCAL
#endif

#endif
