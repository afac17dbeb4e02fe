// SignalWatcher: turns SIGINT, SIGTERM and SIGHUP into calls on a thread.
#ifndef LXCLIENT_SIGNALWATCHER_H
#define LXCLIENT_SIGNALWATCHER_H

#include <QtGlobal>

#include <functional>
#include <thread>

// One per process. Two signals are taken, whatever the main thread does meanwhile: the first and
// the second call their functions on a thread of the watcher; a third ends the process at once, as
// the system does by default. A SIGHUP that is ignored (nohup) stays so.
class SignalWatcher
{
public:
    SignalWatcher(std::function<void()> onFirst, std::function<void()> onSecond);
    // Gives the signals back to the system's default.
    ~SignalWatcher();
    Q_DISABLE_COPY(SignalWatcher)

private:
    std::thread m_thread;
};

#endif
