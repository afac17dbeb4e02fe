// SignalWatcher: turns SIGINT and SIGTERM into a call on the main thread.
#ifndef LXCLIENT_SIGNALWATCHER_H
#define LXCLIENT_SIGNALWATCHER_H

#include <QSocketNotifier>

#include <functional>
#include <memory>

// One per process, while an event loop runs. Only the first signal is taken: a second one ends the
// process at once, as the system does by default.
class SignalWatcher
{
public:
    explicit SignalWatcher(std::function<void()> onSignal);
    // Gives the signals back to the system's default.
    ~SignalWatcher();
    Q_DISABLE_COPY(SignalWatcher)

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
};

#endif
