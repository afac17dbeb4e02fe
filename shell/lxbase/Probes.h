// Probes: places at which the system's own tools (bpftrace, perf) can look into the running bus.
// Internal: not installed.
//
// A probe is one nop while nobody listens, and the library tells the tools where they are. Provider
// lxbase; path, kind and reason are numbers of PutPath, InboxKind and LostReason, plugin a UTF-8
// string, item the address that names an item while it lives:
//
//   put_begin(path), put_end(path)                  a put, or a dispatch thread's routing of one
//   hand_in(path, message)                          a message from the network
//   append(path, item)                              an item is about to go into an inbox
//   batch_begin(plugin, kind, items), batch_end(plugin, kind)
//   handler_begin(plugin, kind, item), handler_end(plugin, kind, item)
//   reg_begin(), reg_end(), unreg_begin(), unreg_end()
//   lost(path, reason)
#ifndef LXBASE_PROBES_H
#define LXBASE_PROBES_H

#ifdef LXBASE_HAS_PROBES
#define SDT_USE_VARIADIC
#include <sys/sdt.h>
#define LXBASE_PROBE(...) STAP_PROBEV(lxbase, __VA_ARGS__)
#else
#define LXBASE_PROBE(...) static_cast<void>(0)
#endif

#endif
