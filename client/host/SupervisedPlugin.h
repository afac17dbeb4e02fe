// SupervisedPlugin: a plugin object as messages name it, and what it has done wrong.
#ifndef LXCLIENT_SUPERVISEDPLUGIN_H
#define LXCLIENT_SUPERVISEDPLUGIN_H

#include "CallWatch.h"
#include "CrashLine.h"

#include <lxclient/Error.h>
#include <lxclient/Supervisor.h>

#include <QMutex>
#include <QStringList>

#include <atomic>

// Everything through which code of a plugin runs: the host calls the plugin with call(), and what
// the bus calls, PluginBase reports here. Owned by the host, outlives the plugin's object.
class SupervisedPlugin final : public lxclient::Supervisor
{
public:
    SupervisedPlugin(QString id, const QString& library, CallWatch& watch);
    Q_DISABLE_COPY(SupervisedPlugin)

    const QString& id() const { return m_id; }

    // "plugin board#1 (library /lib/libboard.so)"
    const QString& name() const { return m_name; }

    // Calls `function`, which calls the plugin, under the deadline. What it throws is the error:
    // "initialise has thrown: no memory". `operation` outlives the call. On the main thread.
    template<class Function>
    lxclient::Error call(const char* operation, const Function& function)
    {
        const CallWatch::Call watched(m_watch, *this, operation);
        const Running running(*this, operation);
        try {
            function();
            return {};
        } catch (...) {
            return thrown(operation, lxclient::exceptionWords());
        }
    }

    // It has failed: a fault for the ledger, which is also said at once, with the plugin's name and
    // `then`, what follows from it. Any thread.
    void fail(const QString& what, const QString& then);

    // What it has failed in so far. Any thread.
    QStringList faults() const;
    bool hasFailed() const { return m_failed; }

    void entered(const char* handler) noexcept override;
    void left() noexcept override;
    void threw(const char* handler, const QString& reason) override;

private:
    // For the time of a call.
    class Running
    {
    public:
        Running(const SupervisedPlugin& plugin, const char* operation)
            : m_before(crashline::exchange({plugin.m_utf8_name.constData(), operation}))
        { }
        ~Running() { crashline::exchange(m_before); }
        Q_DISABLE_COPY(Running)

    private:
        const RunningCall m_before;
    };

    static lxclient::Error thrown(const char* operation, const QString& reason);

    const QString m_id;
    const QString m_name;
    const QByteArray m_utf8_name; // for the line at a crash
    CallWatch& m_watch;

    // atomic: set by a worker of the bus, read by the host
    std::atomic<bool> m_failed{false};

    mutable QMutex m_mutex;
    QStringList m_faults; // guarded by m_mutex
};

#endif
