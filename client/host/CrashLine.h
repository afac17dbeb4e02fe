// CrashLine: when the process crashes, a line on stderr says whose code ran.
#ifndef LXCLIENT_CRASHLINE_H
#define LXCLIENT_CRASHLINE_H

// What a thread is doing, as the line tells it. Both texts outlive the call.
struct RunningCall
{
    const char* plugin = nullptr; // "plugin board#1 (library /lib/libboard.so)"; null: none's code
    const char* operation = nullptr;
};

namespace crashline {

// From now on SIGSEGV, SIGBUS, SIGILL, SIGFPE and SIGABRT write the line, and then do what they did
// before. Once, on the main thread, before there are others.
void install();

// What this thread does from now on; gives back what it did. Costs two stores: it stands around
// every handler call. The first time it gives the thread a stack for the signals, so that a stack
// that overflows can be told of as well.
RunningCall exchange(RunningCall call) noexcept;

} // namespace crashline

#endif
