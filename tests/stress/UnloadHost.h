// What the shutdown program calls in the library that it unloads.
#ifndef LXSTRESS_UNLOADHOST_H
#define LXSTRESS_UNLOADHOST_H

// Plugins register, are put to from several threads and receive slowly; returns when the putting
// has stopped, with the plugins registered and their inboxes and the lists full. The plugins remain
// the caller's, as an opaque pointer: the bus uses them until it has been unloaded.
extern "C" void* loadTheBus(bool park);
using LoadTheBus = void* (*)(bool park);

#endif
